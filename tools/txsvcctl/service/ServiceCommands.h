#pragma once

#include <functional>
#include <string>

#include "txsvcctl/common/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds install, remove, start, restart and stop. The command that the command line names runs when it
/// is parsed.
/// @param console borrowed; must outlive the parsing.
/// @param explain called with a service whose start failed, to say why.
void AddServiceCommands(
    CLI::App& app, IConsole& console, const std::function<void(const std::wstring& service)>& explain);

} // namespace TxCtl
