#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "contract/LogEntry.h"

using HostLogLine = ETWLogging::LogEntry;

/// As the log shows it; empty for what begins no message.
[[nodiscard]] std::wstring LevelName(const HostLogLine& line);

/// Has every host that starts within its scope write its log into a text file, all fields and all levels, and
/// reads it.
///
/// The host looks at these settings before it makes the link from Software\Tarvex to the 32-bit view, so the
/// link is made here if it is missing. At the end all settings of the log are removed; the link stays, and
/// the file, which belongs to the folder's owner. Threads: one at a time. Errors: std::runtime_error.
class CHostLog
{
public:
    /// @param folder absolute; the host creates it when it is missing.
    explicit CHostLog(const std::wstring& folder);
    ~CHostLog();
    CHostLog(const CHostLog&) = delete;
    CHostLog& operator=(const CHostLog&) = delete;

    /// What was written until now, by any process; empty while there is no file.
    [[nodiscard]] std::vector<HostLogLine> Lines() const;
    /// Number of messages of this level with exactly this text.
    [[nodiscard]] std::size_t Count(const std::wstring& level, const std::wstring& message) const;
    [[nodiscard]] bool Has(const std::wstring& level, const std::wstring& message) const
    {
        return Count(level, message) != 0;
    }
    /// Number of messages of this level whose text contains the part.
    [[nodiscard]] std::size_t CountContaining(const std::wstring& level, const std::wstring& part) const;
    /// Waits for a message that another process or thread is about to write.
    [[nodiscard]] bool WaitFor(const std::wstring& level, const std::wstring& message) const;

private:
    std::wstring m_path;
};
