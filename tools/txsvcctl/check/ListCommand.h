#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds list.
/// @param console borrowed; must outlive the parsing.
void AddListCommand(CLI::App& app, IConsole& console);

} // namespace TxCtl
