#pragma once

#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

/// The whole program but for the process around it: parses the command line and runs the command.
/// @param arguments without the program's name.
[[nodiscard]] ExitCode RunTool(const std::vector<std::wstring>& arguments, IConsole& console) noexcept;

} // namespace TxCtl
