#pragma once

#include <windows.h>

#include <cstddef>
#include <optional>
#include <string>

#include "txsvcctl/Console.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Adds "trace" below "log": prints the messages of an event trace file.
/// @see https://learn.microsoft.com/windows/win32/api/evntrace/nf-evntrace-processtrace
void AddTraceCommand(CLI::App& log, IConsole& console);

} // namespace TxCtl
