#pragma once

#include <CLI/App.hpp>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// Adds "setup install" and "setup remove", which installer and uninstaller run, to the command line.
/// @param console outlives the parse; commands write to it.
void AddSetupCommands(CLI::App& app, IConsole& console);

} // namespace TxCtl
