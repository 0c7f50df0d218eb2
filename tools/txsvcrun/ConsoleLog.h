#pragma once

#include <string>

#include "txsvcctl/common/Console.h"

/// The log of this process, on the console instead of in a file: the host's own lines, with the seconds since
/// the start and the level, which has a colour where the console can show one and NO_COLOR is not set.
namespace TxRun::ConsoleLog
{

/// Threads: the main thread, before anything is logged.
/// @param console borrowed until the end of the process.
void Begin(TxCtl::IConsole& console) noexcept;

/// A line of this program among the log's, with "State" for its level. Threads: any.
void AddState(const std::wstring& text) noexcept;

} // namespace TxRun::ConsoleLog
