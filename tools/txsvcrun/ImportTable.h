#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace TxRun
{

/// Has the calls that a loaded module makes to a function of another one arrive here.
///
/// Whatever DLL the module expects the function in: import libraries differ in that. Calls that do not go
/// through the module's import table (GetProcAddress, delayed loading, other modules) go where they went.
/// Threads: while no code of the module calls the function.
/// @see https://learn.microsoft.com/windows/win32/debug/pe-format#import-address-table
void ReplaceImport(HMODULE module, const char* function, void* replacement) noexcept;

/// The DLLs that a module's import table names.
[[nodiscard]] std::vector<std::string> ImportedDlls(HMODULE module);

} // namespace TxRun
