#include "control/AnsiRegistryReader.h"

#include <exception>
#include <string>

#include "base/RegKey.h"

namespace
{

/// @throws std::bad_alloc
std::string ToAnsi(const wchar_t* text)
{
    const int size = ::WideCharToMultiByte(CP_THREAD_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string ansi(size > 0 ? static_cast<std::size_t>(size) : 1, '\0');
    ::WideCharToMultiByte(CP_THREAD_ACP, 0, text, -1, ansi.data(), size, nullptr, nullptr);
    return ansi; // With a second terminator, which c_str's readers do not see.
}

} // namespace

DWORD ReadAnsiRegistryValue(
    HKEY root,
    const wchar_t* keyPath,
    const wchar_t* valueName,
    DWORD& type,
    void* data,
    DWORD& size) noexcept
try
{
    HKEY opened = nullptr;
    LSTATUS status = ::RegOpenKeyExA(root, ToAnsi(keyPath).c_str(), 0, KEY_READ, &opened);
    if (status != ERROR_SUCCESS)
    {
        return static_cast<DWORD>(status);
    }
    const Basalt::CRegKey key(opened);
    status = ::RegQueryValueExA(
        key.Get(), ToAnsi(valueName).c_str(), nullptr, &type, static_cast<BYTE*>(data), &size);
    return static_cast<DWORD>(status == ERROR_INSUFFICIENT_BUFFER ? ERROR_MORE_DATA : status);
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}
