#pragma once

#include <windows.h>

#include <string>

namespace TxCtl
{

/// Why a file cannot be the module of a hosted service.
enum class ModuleFault
{
    None,
    Unreadable, ///< missing, a folder, no access; the error code says which
    NotAnImage, ///< not a Portable Executable, or one with damaged headers
    Not64Bit,   ///< not for x64
    NotADll,
    NoClassObject, ///< does not export DllGetClassObject
};

struct ModuleCheck
{
    ModuleFault fault = ModuleFault::None;
    DWORD error = ERROR_SUCCESS; ///< for Unreadable
};

/// Reads a module's headers and export names. Nothing of it is loaded or run: its code belongs into the host,
/// not into the tool of an administrator.
/// @see https://learn.microsoft.com/windows/win32/debug/pe-format
[[nodiscard]] ModuleCheck CheckModuleFile(const std::wstring& path);

/// "is not a 64-bit module" and the like, to follow the module's name; empty for None.
[[nodiscard]] std::wstring DescribeModuleFault(const ModuleCheck& check);

} // namespace TxCtl
