#pragma once

#include <windows.h>

#include <string>

namespace Basalt
{

/// Finds the file of the module of this process whose image holds a code address.
///
/// @param path receives the module's full path, at most 259 characters; empty when it is longer or the
///             system does not tell it.
/// @return 0 when a module holds the address, ERROR_ACCESS_DENIED when none does, else a Win32 error code.
///         @p path is empty unless the result is 0.
/// Threads: any.
/// @see https://learn.microsoft.com/windows/win32/api/psapi/nf-psapi-enumprocessmodules
[[nodiscard]] DWORD FindModuleOfAddress(const void* address, std::wstring& path) noexcept;

/// The trusted-module check on the file of the module that holds a code address.
/// @return 0 when that code is trusted; otherwise FindModuleOfAddress's or CheckTrustedModule's error code.
[[nodiscard]] DWORD CheckTrustedCode(const void* address) noexcept;

} // namespace Basalt
