#pragma once

#include <windows.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

/// One message of the text log, taken apart.
struct HostLogLine
{
    std::wstring time;  ///< "11/24/2026 09:05:07 AM"
    std::wstring level; ///< "Normal", "Warning", "Information", "Error" or "Critical"
    std::wstring tag;   ///< Empty when the logger has none.
    DWORD processId = 0;
    DWORD threadId = 0;
    std::wstring source; ///< Without its padding, as the function.
    DWORD line = 0;
    std::wstring function;
    std::wstring message;
};
void PrintTo(const HostLogLine& line, std::ostream* stream);

/// Takes the text of a log file apart. A message that goes over several lines stays one message.
[[nodiscard]] std::vector<HostLogLine> ParseHostLog(const std::wstring& text);

/// Has every host that starts within its scope write its log into a text file, all fields and all levels, and
/// reads it.
///
///     CTestFolder folder;
///     CHostLog log(folder.Path());
///     ... run a host ...
///     EXPECT_TRUE(log.Has(L"Normal", L"The service process is stopping"));
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
    /// Number of messages with this level and exact text.
    [[nodiscard]] std::size_t Count(const std::wstring& level, const std::wstring& message) const;
    [[nodiscard]] bool Has(const std::wstring& level, const std::wstring& message) const
    {
        return Count(level, message) != 0;
    }
    /// Number of messages of this level whose text contains the part.
    [[nodiscard]] std::size_t CountContaining(const std::wstring& level, const std::wstring& part) const;
    /// Waits for a message that another process or thread is about to write.
    [[nodiscard]] bool WaitFor(
        const std::wstring& level, const std::wstring& message, DWORD timeoutMs = 30000) const;

    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }

private:
    std::wstring m_path;
};
