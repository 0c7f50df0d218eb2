#pragma once

#include <windows.h>
#include <evntrace.h>
#include <wmistr.h>

#include <cstddef>
#include <string>
#include <vector>

/// One message as a reader of the trace gets it.
struct LogLine
{
    DWORD level = 0;
    std::wstring source;
    std::wstring function;
    DWORD line = 0;
    std::wstring group;
    DWORD processId = 0;
    DWORD threadId = 0;
    std::wstring message;
    UCHAR windowsLevel = 0;
};

/// The one trace session, and what it has of the loggers of this executable.
struct TraceSession
{
    bool isOn = true; ///< When a logger registers.
    UCHAR level = 5;
    ULONG flags = 0;
    ULONG status = 0; ///< Of registrations and events.
    std::vector<LogLine> lines = {};
};

/// Event tracing that exists in this executable only: what the code under test logged, by any thread, since
/// this object was made. As long as nobody says otherwise, the session wants every level.
class CFakeTrace
{
public:
    /// Call it before the first log call, as the common test main does; never taken back, since the logger
    /// lives until the process ends.
    static void Install();

    CFakeTrace();
    ~CFakeTrace(); ///< The session is again as it was at first.
    CFakeTrace(const CFakeTrace&) = delete;
    CFakeTrace& operator=(const CFakeTrace&) = delete;

    /// Everything since the last call, "4 CClass::Method: message" a line.
    [[nodiscard]] std::string Take();

    [[nodiscard]] std::vector<LogLine> Lines() const;
    /// Number of messages of this level whose text contains the part.
    [[nodiscard]] std::size_t Count(DWORD level, const std::wstring& part) const;
    [[nodiscard]] bool Has(DWORD level, const std::wstring& part) const { return Count(level, part) != 0; }
    [[nodiscard]] std::size_t CountContaining(DWORD level, const std::wstring& part) const
    {
        return Count(level, part);
    }
    void Clear();

    /// What a logger that registers from now on meets.
    [[nodiscard]] TraceSession& Session() const;
    /// Turns the session on or off for the logger that registered last.
    [[nodiscard]] DWORD Tell(WMIDPREQUESTCODE code) const;
    /// Loggers that are registered.
    [[nodiscard]] std::size_t Registered() const;
};
