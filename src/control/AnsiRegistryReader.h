#pragma once

#include <windows.h>

/// Reads one registry value through the ANSI calls, as the update manager does that writes it: key and value
/// names are converted to the calling thread's ANSI code page, so a name beyond it means the same wrong key
/// to both.
///
/// @param type receives the stored type.
/// @param data receives the value as stored; strings arrive in the ANSI code page.
/// @param size bytes of @p data in, bytes stored out.
/// @return 0 or a Win32 error code; a buffer that is too small is ERROR_MORE_DATA. On failure take
///         nothing from @p data.
/// Threads: any.
/// @see https://learn.microsoft.com/windows/win32/api/winreg/nf-winreg-regqueryvalueexa
[[nodiscard]] DWORD ReadAnsiRegistryValue(
    HKEY root,
    const wchar_t* keyPath,
    const wchar_t* valueName,
    DWORD& type,
    void* data,
    DWORD& size) noexcept;
