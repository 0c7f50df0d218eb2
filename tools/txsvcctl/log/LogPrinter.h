#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "txsvcctl/common/Console.h"
#include "txsvcctl/log/LogMoment.h"
#include "txsvcctl/log/LogSink.h"

namespace TxCtl
{

/// Which entries are shown.
struct LogFilter
{
    DWORD level = 0;                     ///< the lowest one
    std::optional<std::wstring> service; ///< a word in the message, in any case
    std::optional<LogMoment> since;

    /// Text that belongs to no entry has neither level nor time: it is wanted when nobody asks for them.
    [[nodiscard]] bool Wants(const LogEntry& entry) const;
};

/// Prints entries in columns or as JSON, one object in a line.
class CLogPrinter final : public ILogSink
{
public:
    /// @param stop when signalled, nothing more is wanted; null when nobody stops it.
    CLogPrinter(LogFilter filter, bool json, HANDLE stop, IConsole& console)
        : m_filter(std::move(filter)), m_json(json), m_stop(stop), m_console(console)
    {
    }

    void Add(LogEntry entry) override;
    bool EndPiece() override;

private:
    LogFilter m_filter;
    bool m_json;
    HANDLE m_stop;
    IConsole& m_console;
    std::wstring m_lines; ///< Not printed yet.
};

} // namespace TxCtl
