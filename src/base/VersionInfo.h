#pragma once

#include <windows.h>

#include <string>

namespace Basalt
{

/// Four 16-bit numbers, as in "6.3.3036.0".
struct Version
{
    WORD major = 0;
    WORD minor = 0;
    WORD build = 0;
    WORD revision = 0;
};

/// Reads the file version from a module's fixed version resource. version.dll is loaded for the call.
/// @param path full path of an executable or DLL.
/// @param version untouched on failure.
/// @return 0 or the Win32 error: ERROR_RESOURCE_TYPE_NOT_FOUND and the like for a file without one,
///         ERROR_INVALID_DATA for a damaged one.
/// @see https://learn.microsoft.com/windows/win32/api/winver/nf-winver-getfileversioninfow
[[nodiscard]] DWORD GetFileVersion(const std::wstring& path, Version& version) noexcept;

/// The true version of the running Windows, whatever the program's manifest says it knows.
/// @return 0 or the Win32 error.
/// @see https://learn.microsoft.com/windows/win32/devnotes/rtlgetversion
[[nodiscard]] DWORD GetWindowsVersion(Version& version) noexcept;

} // namespace Basalt
