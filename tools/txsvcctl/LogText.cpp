#include "txsvcctl/LogText.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <string_view>
#include <utility>

#include "logging/LogLine.h"
#include "logging/LoggingIf.h"
#include "txsvcctl/Utf8.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kByteOrderMark = L'\xFEFF';

/// Longer lines and messages are split: a file that is no log must not fill the memory.
constexpr std::size_t kLongestText = 1 << 20;

// The widths to which the logger pads and cuts its fields.
constexpr std::size_t kTagWidth = 15;
constexpr std::size_t kSourceWidth = 20;
constexpr std::size_t kFunctionWidth = 40;

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

/// Names, and the numbers that stand for levels without one.
bool FindLevel(const std::wstring& name, DWORD& level)
{
    for (level = ETWLogging::LogNormal; level <= ETWLogging::LogCritical; ++level)
    {
        if (name == ETWLogging::LogLevelName(level))
        {
            return true;
        }
    }
    CCursor cursor(name);
    return cursor.Read(level) && cursor.Rest().empty();
}

bool ReadHead(CCursor& cursor, LogEntry& entry)
{
    SYSTEMTIME time{};
    if (!(cursor.Read(time.wMonth) && cursor.Skip(L"/") && cursor.Read(time.wDay) && cursor.Skip(L"/") &&
          cursor.Read(time.wYear) && cursor.Skip(L" ") && cursor.Read(time.wHour) && cursor.Skip(L":") &&
          cursor.Read(time.wMinute) && cursor.Skip(L":") && cursor.Read(time.wSecond) && cursor.Skip(L" ")))
    {
        return false;
    }
    const bool isMorning = cursor.Skip(L"AM");
    if (!(isMorning || cursor.Skip(L"PM")) || !ConvertTo24Hours(time, !isMorning) ||
        !cursor.Skip(L"$ -- (") || !cursor.ReadTo(L')', entry.levelName) || !cursor.Skip(L")$") ||
        !FindLevel(entry.levelName, entry.level))
    {
        return false;
    }
    entry.time = time;
    return true;
}

bool ReadTag(CCursor& cursor, LogEntry& entry)
{
    std::wstring tag;
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kTagWidth, tag) || !cursor.Skip(L"]$"))
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
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kSourceWidth, source) || !cursor.Skip(L":") ||
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
    if (!cursor.Skip(L"[") || !cursor.ReadPadded(kFunctionWidth, function) || !cursor.Skip(L"()]$"))
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

/// Whether a line without an end could still become one that begins an entry, or already is one.
bool MayBeginEntry(const std::wstring& line)
{
    CCursor cursor(line);
    LogEntry entry;
    return ReadHead(cursor, entry) || cursor.RanOut();
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

void CLogText::Feed(const char* bytes, std::size_t size, ILogSink& sink)
{
    m_bytes.append(bytes, size);
    if (!findEncoding())
    {
        return;
    }
    std::size_t begin = 0;
    for (std::size_t end = lineEnd(begin); end != std::string::npos; end = lineEnd(begin))
    {
        addLine(decode(begin, end), sink);
        begin = end;
    }
    m_bytes.erase(0, begin);
}

void CLogText::Pause(ILogSink& sink)
{
    if (m_bytes.empty() || MayBeginEntry(decode(0, m_bytes.size())))
    {
        handOn(sink);
    }
}

void CLogText::Finish(ILogSink& sink)
{
    const std::wstring torn = decode(0, m_bytes.size());
    m_bytes.clear();
    if (!torn.empty() && (ParseLogLine(torn) || !MayBeginEntry(torn)))
    {
        addLine(torn, sink);
    }
    handOn(sink);
}

bool CLogText::TakeBack(std::size_t bytes)
{
    if (bytes > m_bytes.size())
    {
        return false;
    }
    m_bytes.resize(m_bytes.size() - bytes);
    return true;
}

/// By the mark, or by the first character, which is a digit in every log.
bool CLogText::findEncoding()
{
    if (m_encoding == Encoding::Unknown && m_bytes.size() >= sizeof(wchar_t))
    {
        const bool isUtf16 = (m_bytes[0] == '\xFF' && m_bytes[1] == '\xFE') || m_bytes[1] == '\0';
        m_encoding = isUtf16 ? Encoding::Utf16 : Encoding::Narrow;
    }
    return m_encoding != Encoding::Unknown;
}

/// @return the place behind the line's end; npos when the line is not complete.
std::size_t CLogText::lineEnd(std::size_t begin) const
{
    if (m_encoding == Encoding::Utf16)
    {
        for (std::size_t at = begin; at + 1 < m_bytes.size(); at += sizeof(wchar_t))
        {
            if (m_bytes[at] == '\n' && m_bytes[at + 1] == '\0')
            {
                return at + sizeof(wchar_t);
            }
        }
    }
    else
    {
        const std::size_t lineFeed = m_bytes.find('\n', begin);
        if (lineFeed != std::string::npos)
        {
            return lineFeed + 1;
        }
    }
    return m_bytes.size() - begin > kLongestText ? begin + kLongestText : std::string::npos;
}

/// Without line end and byte order mark; half a character at the end is dropped.
std::wstring CLogText::decode(std::size_t begin, std::size_t end) const
{
    constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
    const bool isMarked =
        m_encoding == Encoding::Narrow && m_bytes.compare(begin, kUtf8Mark.size(), kUtf8Mark) == 0;
    begin += isMarked ? kUtf8Mark.size() : 0;
    std::wstring text;
    const char* const bytes = m_bytes.data() + begin;
    const auto size = static_cast<int>(end - begin);
    if (m_encoding == Encoding::Utf16)
    {
        text.resize((end - begin) / sizeof(wchar_t));
        std::copy_n(bytes, text.size() * sizeof(wchar_t), reinterpret_cast<char*>(text.data()));
    }
    else if (size > 0)
    {
        UINT codePage = CP_UTF8;
        int length = ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, bytes, size, nullptr, 0);
        if (length == 0)
        {
            codePage = CP_ACP;
            length = ::MultiByteToWideChar(codePage, 0, bytes, size, nullptr, 0);
        }
        text.resize(static_cast<std::size_t>(length));
        ::MultiByteToWideChar(codePage, 0, bytes, size, text.data(), length);
    }
    if (text.ends_with(L'\n'))
    {
        text.pop_back();
        text.erase(text.find_last_not_of(L'\r') + 1);
    }
    text.erase(0, text.starts_with(kByteOrderMark) ? 1 : 0);
    return text;
}

void CLogText::addLine(const std::wstring& line, ILogSink& sink)
{
    std::optional<LogEntry> entry = ParseLogLine(line);
    if (entry || (m_entry && m_entry->message.size() > kLongestText))
    {
        handOn(sink);
    }
    if (entry)
    {
        m_entry = std::move(entry);
    }
    else if (m_entry)
    {
        m_entry->message += L'\n' + line;
    }
    else if (!line.empty())
    {
        m_entry.emplace().message = line;
    }
}

void CLogText::handOn(ILogSink& sink)
{
    if (m_entry)
    {
        LogEntry entry = std::move(*m_entry);
        m_entry.reset();
        sink.Add(std::move(entry));
    }
}

} // namespace TxCtl
