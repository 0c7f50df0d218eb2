#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds new, which writes the project of a service for its author to go on with.
/// @param console borrowed; must outlive the parsing.
void AddNewCommand(CLI::App& app, IConsole& console);

} // namespace TxCtl
