#include "txsvcctl/log/LogMoment.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

std::optional<LogMoment> ParseDate(const std::wstring& text)
{
    constexpr std::wstring_view kShape = L"0000-00-00 00:00:00";
    constexpr std::size_t kLengths[] = {10, 16, kShape.size()};
    std::wstring shape = text;
    for (wchar_t& character : shape)
    {
        const bool isDigit = character >= L'0' && character <= L'9';
        character = isDigit ? L'0' : character == L'T' ? L' ' : character;
    }
    if (!kShape.starts_with(shape) ||
        std::find(std::begin(kLengths), std::end(kLengths), shape.size()) == std::end(kLengths))
    {
        return std::nullopt;
    }
    const std::wstring full = text + std::wstring(kShape.substr(text.size()));
    const auto number = [&full](std::size_t at, std::size_t digits) {
        return static_cast<WORD>(std::stoul(full.substr(at, digits)));
    };
    return LogMoment::From(
        {number(0, 4), number(5, 2), 0, number(8, 2), number(11, 2), number(14, 2), number(17, 2), 0});
}

/// Counted on the clock that does not jump with daylight saving time.
std::optional<LogMoment> ParseAge(const std::wstring& text)
{
    constexpr ULONGLONG kUnitsPerMinute = 600'000'000;
    constexpr std::size_t kMostDigits = 5;
    const std::size_t digits = text.empty() ? 0 : text.size() - 1;
    if (digits == 0 || digits > kMostDigits || text.find_first_not_of(L"0123456789") != digits)
    {
        return std::nullopt;
    }
    const wchar_t unit = text.back();
    const ULONGLONG minutes = unit == L'm' ? 1 : unit == L'h' ? 60 : unit == L'd' ? 1440 : 0;
    if (minutes == 0)
    {
        return std::nullopt;
    }
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    SYSTEMTIME local = LocalTime(
        (ULONGLONG{now.dwHighDateTime} << 32 | now.dwLowDateTime) -
        std::stoul(text) * minutes * kUnitsPerMinute);
    local.wMilliseconds = 0; // The text log has whole seconds.
    return LogMoment::From(local);
}

} // namespace

std::optional<LogMoment> LogMoment::From(const SYSTEMTIME& local) noexcept
{
    FILETIME time{};
    if (!::SystemTimeToFileTime(&local, &time))
    {
        return std::nullopt;
    }
    LogMoment moment;
    moment.m_units = ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
    return moment;
}

LogMoment LogMoment::Parse(const std::wstring& text)
{
    const std::optional<LogMoment> date = ParseDate(text);
    const std::optional<LogMoment> moment = date ? date : ParseAge(text);
    if (!moment)
    {
        ThrowUsage(
            L"'" + text +
            L"' is no time: give 2026-11-24, \"2026-11-24 13:05:09\", or 15m, 2h or 3d back from now");
    }
    return *moment;
}

SYSTEMTIME LocalTime(ULONGLONG universal) noexcept
{
    const FILETIME fileTime = {static_cast<DWORD>(universal), static_cast<DWORD>(universal >> 32)};
    SYSTEMTIME time{};
    SYSTEMTIME local{};
    ::FileTimeToSystemTime(&fileTime, &time);
    ::SystemTimeToTzSpecificLocalTime(nullptr, &time, &local);
    return local;
}

} // namespace TxCtl
