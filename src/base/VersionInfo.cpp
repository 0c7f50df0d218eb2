#include "base/VersionInfo.h"

#include <exception>
#include <vector>

#include "base/SystemLibrary.h"

namespace Basalt
{

DWORD GetFileVersion(const std::wstring& path, Version& version) noexcept
try
{
    const CModule library = LoadSystemLibrary(L"version.dll");
    const auto getSize =
        FindExport<decltype(::GetFileVersionInfoSizeW)>(library.Get(), "GetFileVersionInfoSizeW");
    const auto getInfo = FindExport<decltype(::GetFileVersionInfoW)>(library.Get(), "GetFileVersionInfoW");
    const auto query = FindExport<decltype(::VerQueryValueW)>(library.Get(), "VerQueryValueW");
    if (getSize == nullptr || getInfo == nullptr || query == nullptr)
    {
        return ::GetLastError();
    }

    DWORD ignored = 0;
    const DWORD size = getSize(path.c_str(), &ignored);
    if (size == 0)
    {
        return ::GetLastError();
    }
    std::vector<BYTE> block(size);
    if (!getInfo(path.c_str(), 0, size, block.data()))
    {
        return ::GetLastError();
    }
    void* found = nullptr;
    UINT foundBytes = 0;
    if (!query(block.data(), L"\\", &found, &foundBytes) || foundBytes < sizeof(VS_FIXEDFILEINFO))
    {
        return ERROR_INVALID_DATA;
    }
    const auto* info = static_cast<const VS_FIXEDFILEINFO*>(found);
    version = {
        HIWORD(info->dwFileVersionMS),
        LOWORD(info->dwFileVersionMS),
        HIWORD(info->dwFileVersionLS),
        LOWORD(info->dwFileVersionLS)};
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD GetWindowsVersion(Version& version) noexcept
{
    // GetVersionExW answers what the manifest claims to support; the kernel's own routine tells the truth.
    using RtlGetVersion = LONG WINAPI(OSVERSIONINFOW*);
    const auto getVersion = FindExport<RtlGetVersion>(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
    if (getVersion == nullptr)
    {
        return ::GetLastError();
    }
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof(info);
    if (getVersion(&info) != 0)
    {
        return ERROR_INVALID_FUNCTION;
    }
    version = {
        static_cast<WORD>(info.dwMajorVersion),
        static_cast<WORD>(info.dwMinorVersion),
        static_cast<WORD>(info.dwBuildNumber),
        0};
    return ERROR_SUCCESS;
}

} // namespace Basalt
