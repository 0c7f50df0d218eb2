#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds "log" with all its commands, as AddServiceCommands adds the others.
void AddLogCommands(CLI::App& app, IConsole& console);

} // namespace TxCtl
