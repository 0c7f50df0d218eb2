#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "txsvcctl/Console.h"
#include "txsvcctl/LogReader.h"

namespace CLI
{
class App; // NOLINT(readability-identifier-naming): the library's own name.
}

namespace TxCtl
{

/// Which entries are shown, and how.
struct LogShowOptions
{
    DWORD level = 0;                     ///< the lowest one
    std::optional<std::wstring> service; ///< a word in the message
    std::optional<ULONGLONG> since;      ///< local, in units of a FILETIME
    bool json = false;
};

/// A moment given as "2026-11-24", "2026-11-24 13:05", "2026-11-24 13:05:09" (or with a "T" for the blank),
/// or as "15m", "2h" or "3d" back from now.
/// @return local, in units of a FILETIME.
/// @throws CToolError with ExitCode::Usage
[[nodiscard]] ULONGLONG ParseMoment(const std::wstring& text);

/// Prints the entries of a log.
class CLogShow final : private ILogSink
{
public:
    /// @param path of the file that is written to.
    /// @param oldFiles how many of the older ones are shown before it.
    /// @param stop when signalled, reading ends soon; null when nobody stops it.
    CLogShow(
        const std::wstring& path, DWORD oldFiles, LogShowOptions options, HANDLE stop, IConsole& console);

    /// What is there by now.
    /// @throws CToolError when there is no log
    void Show();

    /// The same, then what is appended, until it is stopped or the output fails. The log need not be there
    /// yet, its folder must.
    /// @throws CToolError
    void Follow();

private:
    void Add(LogEntry entry) override;
    bool EndPiece() override;

    [[nodiscard]] bool isWanted(const LogEntry& entry) const;
    [[nodiscard]] bool isStopped() const noexcept;

    std::wstring m_path;
    LogShowOptions m_options;
    HANDLE m_stop;
    IConsole& m_console;
    CLogReader m_reader;
    std::wstring m_lines; ///< Not printed yet.
};

/// Adds "show" below "log".
void AddShowCommand(CLI::App& log, IConsole& console);

} // namespace TxCtl
