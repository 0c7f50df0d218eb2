#include "base/ShlObjAPI.h"

#include <objbase.h>
#include <shlobj.h>

#include <exception>

#include "base/Owned.h"
#include "base/SystemLibrary.h"

namespace Basalt
{

namespace
{

/// The shell gives its strings away with COM's task allocator.
struct TaskMemoryTraits
{
    using Type = wchar_t*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::CoTaskMemFree(value); }
};

} // namespace

HRESULT ShlObjAPI::GetKnownFolder(const GUID& folderId, std::wstring& path) const noexcept
try
{
    const CModule shell = LoadSystemLibrary(L"shell32.dll");
    const auto getFolder = FindExport<decltype(::SHGetKnownFolderPath)>(shell.Get(), "SHGetKnownFolderPath");
    if (getFolder == nullptr)
    {
        return HRESULT_FROM_WIN32(::GetLastError());
    }
    COwned<TaskMemoryTraits> text;
    const HRESULT result = getFolder(folderId, KF_FLAG_DEFAULT, nullptr, text.Put());
    if (SUCCEEDED(result) && text)
    {
        path = text.Get();
    }
    return SUCCEEDED(result) && !text ? E_UNEXPECTED : result;
}
catch (const std::exception&)
{
    return E_OUTOFMEMORY;
}

} // namespace Basalt
