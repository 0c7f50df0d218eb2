#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds install, remove, list, start, restart and stop. The command that the command line names runs when it
/// is parsed.
/// @param console borrowed; must outlive the parsing.
void AddServiceCommands(CLI::App& app, IConsole& console);

} // namespace TxCtl
