#pragma once

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds version.
/// @param console borrowed; must outlive the parsing.
void AddVersionCommand(CLI::App& app, IConsole& console);

} // namespace TxCtl
