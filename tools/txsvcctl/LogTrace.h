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

/// What a message event carries (logging/EventRecord.h).
struct TraceMessage
{
    ULONG level = 0;
    std::wstring file;
    std::wstring function;
    ULONG line = 0;
    std::wstring group;
    ULONG processId = 0;
    ULONG threadId = 0;
    std::wstring message;
};

/// Takes the fields out of a message event's data, where they stand one after the other without padding.
/// @param data need not be aligned.
/// @return nothing when the data ends too early, a text has no terminator, or something is left over.
[[nodiscard]] std::optional<TraceMessage> DecodeTraceMessage(const BYTE* data, std::size_t size);

/// Adds "trace" below "log": prints the messages of an event trace file.
/// @see https://learn.microsoft.com/windows/win32/api/evntrace/nf-evntrace-processtrace
void AddTraceCommand(CLI::App& log, IConsole& console);

} // namespace TxCtl
