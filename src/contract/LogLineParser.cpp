#include "contract/LogLineParser.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "contract/LogLevels.h"
#include "contract/LogLine.h"

namespace ETWLogging
{

namespace
{

bool IsDigit(wchar_t character) noexcept
{
    return character >= L'0' && character <= L'9';
}

/// Reads a line from left to right.
class CCursor
{
public:
    explicit CCursor(std::wstring_view text) noexcept : m_text(text) {}

    /// Stays where it is unless the whole part stands here.
    bool Skip(const wchar_t* part) noexcept
    {
        std::size_t at = m_at;
        for (; *part != L'\0'; ++part, ++at)
        {
            if (at == m_text.size())
            {
                m_ranOut = true;
                return false;
            }
            if (m_text[at] != *part)
            {
                return false;
            }
        }
        m_at = at;
        return true;
    }

    bool Read(DWORD& number) noexcept
    {
        constexpr DWORD kTen = 10;
        ULONGLONG value = 0;
        const std::size_t begin = m_at;
        for (; m_at < m_text.size() && IsDigit(m_text[m_at]) && value <= MAXDWORD; ++m_at)
        {
            value = value * kTen + static_cast<ULONGLONG>(m_text[m_at] - L'0');
        }
        m_ranOut = m_ranOut || m_at == m_text.size();
        number = static_cast<DWORD>(value);
        return m_at != begin && value <= MAXDWORD;
    }

    bool Read(WORD& number) noexcept
    {
        DWORD value = 0;
        const bool isRead = Read(value) && value <= MAXWORD;
        number = static_cast<WORD>(value);
        return isRead;
    }

    bool ReadPadded(DWORD& number) noexcept
    {
        m_at += Blanks();
        return Read(number);
    }

    /// A text padded on the left to just this width.
    bool ReadPadded(std::size_t width, std::wstring& text)
    {
        if (m_text.size() - m_at < width)
        {
            return false;
        }
        text = m_text.substr(m_at, width);
        text.erase(0, text.find_first_not_of(L' '));
        m_at += width;
        return true;
    }

    bool ReadTo(wchar_t mark, std::wstring& text)
    {
        const std::size_t end = m_text.find(mark, m_at);
        m_ranOut = m_ranOut || end == std::wstring::npos;
        text = m_text.substr(m_at, end - m_at);
        m_at += text.size();
        return end != std::wstring::npos;
    }

    [[nodiscard]] std::size_t Blanks() const noexcept
    {
        return std::min(m_text.find_first_not_of(L' ', m_at), m_text.size()) - m_at;
    }
    void Advance(std::size_t count) noexcept { m_at += count; }
    [[nodiscard]] std::wstring Rest() const { return std::wstring(m_text.substr(m_at)); }
    /// Whether reading failed for want of more text.
    [[nodiscard]] bool RanOut() const noexcept { return m_ranOut; }

private:
    std::wstring_view m_text;
    std::size_t m_at = 0;
    bool m_ranOut = false;
};

/// @return false when it is no time of the 12-hour clock.
bool ConvertTo24Hours(SYSTEMTIME& time, bool isAfternoon) noexcept
{
    constexpr WORD kNoon = 12;
    if (time.wHour == 0 || time.wHour > kNoon)
    {
        return false;
    }
    time.wHour = static_cast<WORD>(time.wHour % kNoon + (isAfternoon ? kNoon : 0));
    FILETIME ignored{};
    return ::SystemTimeToFileTime(&time, &ignored);
}

bool FindLevel(const std::wstring& name, DWORD& level)
{
    level = LogNormal;
    while (level <= LogCritical && name != LogLevelName(level))
    {
        ++level;
    }
    return level <= LogCritical;
}

bool ReadHead(CCursor& cursor, LogEntry& entry)
{
    SYSTEMTIME time{};
    std::wstring levelName;
    if (!(cursor.Read(time.wMonth) && cursor.Skip(L"/") && cursor.Read(time.wDay) && cursor.Skip(L"/") &&
          cursor.Read(time.wYear) && cursor.Skip(L" ") && cursor.Read(time.wHour) && cursor.Skip(L":") &&
          cursor.Read(time.wMinute) && cursor.Skip(L":") && cursor.Read(time.wSecond) && cursor.Skip(L" ")))
    {
        return false;
    }
    const bool isMorning = cursor.Skip(L"AM");
    if (!(isMorning || cursor.Skip(L"PM")) || !ConvertTo24Hours(time, !isMorning) ||
        !cursor.Skip(L"$ -- (") || !cursor.ReadTo(L')', levelName) || !cursor.Skip(L")$") ||
        !FindLevel(levelName, entry.level))
    {
        return false;
    }
    entry.time = time;
    return true;
}

bool ReadTag(CCursor& cursor, LogEntry& entry)
{
    std::wstring tag;
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kTagColumns, tag) || !cursor.Skip(L"]$"))
    {
        return false;
    }
    entry.tag = std::move(tag);
    return true;
}

bool ReadProcess(CCursor& cursor, LogEntry& entry)
{
    DWORD process = 0;
    DWORD thread = 0;
    if (!cursor.Skip(L"[PID:") || !cursor.ReadPadded(process) || !cursor.Skip(L" TID:") ||
        !cursor.ReadPadded(thread) || !cursor.Skip(L"]$"))
    {
        return false;
    }
    entry.process = process;
    entry.thread = thread;
    return true;
}

bool ReadSource(CCursor& cursor, LogEntry& entry)
{
    std::wstring source;
    DWORD line = 0;
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kSourceColumns, source) || !cursor.Skip(L":") ||
        !cursor.ReadPadded(line) || !cursor.Skip(L"]$"))
    {
        return false;
    }
    entry.source = std::move(source);
    entry.line = line;
    return true;
}

bool ReadFunction(CCursor& cursor, LogEntry& entry)
{
    std::wstring function;
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kFunctionColumns, function) || !cursor.Skip(L"()]$"))
    {
        return false;
    }
    entry.function = std::move(function);
    return true;
}

/// In the order in which they stand in a line.
constexpr bool (*kFields[])(CCursor&, LogEntry&) = {&ReadTag, &ReadProcess, &ReadSource, &ReadFunction};

/// Each field that was wanted begins with a blank, so does the message; n blanks are n - 1 fields without a
/// value and what stands behind.
void ReadFields(CCursor& cursor, LogEntry& entry)
{
    std::size_t next = 0;
    for (std::size_t field = cursor.Blanks() == 0 ? std::size(kFields) : cursor.Blanks() - 1;
         field < std::size(kFields);)
    {
        CCursor trial = cursor;
        trial.Advance(cursor.Blanks());
        if (!kFields[field](trial, entry))
        {
            ++field;
            continue;
        }
        cursor = trial;
        next = field + 1;
        field = cursor.Blanks() == 0 ? std::size(kFields) : next + cursor.Blanks() - 1;
    }
    cursor.Advance(std::min(cursor.Blanks(), std::size(kFields) - next + 1));
}

} // namespace

std::optional<LogEntry> ParseLogLine(const std::wstring& line)
{
    CCursor cursor(line);
    LogEntry entry;
    if (!ReadHead(cursor, entry))
    {
        return std::nullopt;
    }
    ReadFields(cursor, entry);
    entry.message = cursor.Rest();
    return entry;
}

bool MayBeginLogEntry(const std::wstring& line)
{
    CCursor cursor(line);
    LogEntry entry;
    return ReadHead(cursor, entry) || cursor.RanOut();
}

} // namespace ETWLogging
