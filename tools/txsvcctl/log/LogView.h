#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds "show" and "trace" below "log".
void AddViewCommands(CLI::App& log, IConsole& console);

} // namespace TxCtl
