#pragma once

#include <windows.h>

#include <compare>
#include <optional>
#include <string>

namespace TxCtl
{

/// A moment as clocks on the wall show it: the text log has no other.
class LogMoment
{
public:
    /// @return nothing when there is no such date or time.
    [[nodiscard]] static std::optional<LogMoment> From(const SYSTEMTIME& local) noexcept;

    /// "2026-11-24", "2026-11-24 13:05", "2026-11-24 13:05:09" (or with a "T" for the blank), or "15m", "2h"
    /// or "3d" back from now.
    /// @throws CToolError with ExitCode::Usage
    [[nodiscard]] static LogMoment Parse(const std::wstring& text);

    [[nodiscard]] auto operator<=>(const LogMoment&) const noexcept = default;

private:
    ULONGLONG m_units = 0; ///< of a FILETIME
};

/// @see
/// https://learn.microsoft.com/windows/win32/api/timezoneapi/nf-timezoneapi-systemtimetotzspecificlocaltime
[[nodiscard]] SYSTEMTIME LocalTime(ULONGLONG universal) noexcept;

} // namespace TxCtl
