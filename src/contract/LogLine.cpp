#include "contract/LogLine.h"

#include <cwchar>

#include "base/Text.h"
#include "contract/LogLevels.h"

namespace ETWLogging
{

namespace
{

bool IsEmpty(const wchar_t* text) noexcept
{
    return text == nullptr || *text == L'\0';
}

const wchar_t* BaseName(const wchar_t* path) noexcept
{
    const wchar_t* const backslash = path == nullptr ? nullptr : std::wcsrchr(path, L'\\');
    return backslash == nullptr ? path : backslash + 1;
}

/// Time on a 12-hour clock, then the level.
void AppendHead(std::wstring& text, const SYSTEMTIME& time, const wchar_t* levelName)
{
    constexpr int kNoon = 12;
    const int hour = time.wHour % kNoon;
    Basalt::AppendFormat(
        text,
        L"%02hu/%02hu/%hu %02hu:%02hu:%02hu %s$ -- (%s)$",
        time.wMonth,
        time.wDay,
        time.wYear,
        hour == 0 ? kNoon : hour,
        time.wMinute,
        time.wSecond,
        time.wHour < kNoon ? L"AM" : L"PM",
        levelName);
}

} // namespace

std::wstring BuildLogLine(const LogLineFields& fields, const wchar_t* levelName, const wchar_t* message)
{
    constexpr std::size_t kFieldsAtMost = 256;
    std::wstring text;
    text.reserve(kFieldsAtMost + std::wcslen(message));
    AppendHead(text, fields.time, levelName);
    // A field that is wanted but has no value leaves its blank: readers count fields.
    const auto append = [&](DWORD option, bool present, const wchar_t* format, auto... values) {
        if ((fields.options & option) != 0)
        {
            text += L' ';
            if (present)
            {
                Basalt::AppendFormat(text, format, values...);
            }
        }
    };
    append(LogOptionTag, !IsEmpty(fields.tag), L"[%15.15s]$", fields.tag);
    append(LogOptionProcess, true, L"[PID:%5d TID:%5d]$", fields.processId, fields.threadId);
    append(LogOptionSource, !IsEmpty(fields.file), L"[%20.20s:%5d]$", BaseName(fields.file), fields.line);
    append(LogOptionFunction, !IsEmpty(fields.function), L"[%40.40s()]$", fields.function);
    text += L' ';
    text += message;
    if (text.back() != L'\n')
    {
        text += L"\r\n";
    }
    return text;
}

} // namespace ETWLogging
