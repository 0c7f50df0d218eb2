#include "logging/LogLine.h"

#include <cwchar>
#include <utility>

#include "base/Text.h"
#include "logging/LoggingIf.h"

namespace ETWLogging
{

namespace
{

const wchar_t* NameOf(DWORD level) noexcept
{
    switch (level)
    {
    case LogNormal:
        return L"Normal";
    case LogWarning:
        return L"Warning";
    case LogInformation:
    case LogInformation2:
        return L"Information";
    case LogError:
        return L"Error";
    case LogCritical:
        return L"Critical";
    default:
        return nullptr;
    }
}

bool IsEmpty(const wchar_t* text) noexcept
{
    return text == nullptr || *text == L'\0';
}

const wchar_t* BaseName(const wchar_t* path) noexcept
{
    const wchar_t* const backslash = path == nullptr ? nullptr : std::wcsrchr(path, L'\\');
    return backslash == nullptr ? path : backslash + 1;
}

/// Local time on a 12-hour clock, then the level.
void AppendHead(std::wstring& text, const wchar_t* levelName)
{
    constexpr int kNoon = 12;
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    const int hour = now.wHour % kNoon;
    Basalt::AppendFormat(
        text,
        L"%02hu/%02hu/%hu %02hu:%02hu:%02hu %s$ -- (%s)$",
        now.wMonth,
        now.wDay,
        now.wYear,
        hour == 0 ? kNoon : hour,
        now.wMinute,
        now.wSecond,
        now.wHour < kNoon ? L"AM" : L"PM",
        levelName);
}

} // namespace

DWORD BuildLogLine(
    const LogLineFields& fields,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    DWORD level,
    const wchar_t* message,
    std::wstring& text)
{
    const wchar_t* const levelName = NameOf(level);
    if (IsEmpty(message) || levelName == nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }
    constexpr std::size_t kFieldsAtMost = 256;
    std::wstring built;
    built.reserve(kFieldsAtMost + std::wcslen(message));
    AppendHead(built, levelName);
    // A field that is wanted but has no value leaves its blank: readers count fields.
    const auto append = [&built, &fields](DWORD option, bool present, const wchar_t* format, auto... values) {
        if ((fields.options & option) != 0)
        {
            built += L' ';
            if (present)
            {
                Basalt::AppendFormat(built, format, values...);
            }
        }
    };
    append(LogOptionTag, !IsEmpty(fields.tag), L"[%15.15s]$", fields.tag);
    append(LogOptionProcess, true, L"[PID:%5d TID:%5d]$", fields.processId, ::GetCurrentThreadId());
    append(LogOptionSource, !IsEmpty(file), L"[%20.20s:%5d]$", BaseName(file), line);
    append(LogOptionFunction, !IsEmpty(function), L"[%40.40s()]$", function);
    built += L' ';
    built += message;
    if (built.back() != L'\n')
    {
        built += L"\r\n";
    }
    text = std::move(built);
    return ERROR_SUCCESS;
}

} // namespace ETWLogging
