#pragma once

#include <string>

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds check.
/// @param console borrowed; must outlive the parsing.
void AddCheckCommand(CLI::App& app, IConsole& console);

/// What keeps a service from running, as far as its settings tell, on the console's error stream.
void ExplainService(const std::wstring& service, IConsole& console);

} // namespace TxCtl
