#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"

namespace TxRun
{

/// The whole program but for the process around it: runs one hosted service to its end.
/// @param arguments without the program's name.
/// @param console borrowed until the end of the process.
/// @return the process's exit code: the service's, or why it did not run (docs/txsvcrun.md).
[[nodiscard]] DWORD RunTool(const std::vector<std::wstring>& arguments, TxCtl::IConsole& console) noexcept;

} // namespace TxRun
