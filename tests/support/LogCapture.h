#pragma once

#include <windows.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

/// One message as the event-tracing logger handed it to TraceEvent.
struct LogLine
{
    DWORD level = 0;
    std::wstring source;
    std::wstring function;
    DWORD line = 0;
    std::wstring message;
};
void PrintTo(const LogLine& line, std::ostream* stream);

/// Starts a trace session that exists in this executable only: from now on the event-tracing logger finds a
/// listener that wants every level. Call it before the first log call, as the common test main does.
void InstallLogCapture();

/// The messages logged, by any thread, since this object was made.
class CLogCapture
{
public:
    CLogCapture();

    [[nodiscard]] std::vector<LogLine> Lines() const;
    /// Number of messages with this level and exact text.
    [[nodiscard]] std::size_t Count(DWORD level, const std::wstring& message) const;
    [[nodiscard]] bool Has(DWORD level, const std::wstring& message) const
    {
        return Count(level, message) != 0;
    }
    /// Number of messages of this level whose text contains the part.
    [[nodiscard]] std::size_t CountContaining(DWORD level, const std::wstring& part) const;
    /// The texts alone, in their order.
    [[nodiscard]] std::vector<std::wstring> Messages() const;
    void Clear();
};
