#include "txsvcctl/log/LogPrinter.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "base/Text.h"
#include "contract/LogLevels.h"
#include "txsvcctl/common/Utf8.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

bool IsWordCharacter(wchar_t character) noexcept
{
    return ::IsCharAlphaNumericW(character) || character == L'_' || character == L'-';
}

bool HasWord(const std::wstring& text, const std::wstring& word)
{
    for (std::size_t begin = 0; begin < text.size(); ++begin)
    {
        const int at = ::FindStringOrdinal(
            FIND_FROMSTART,
            text.data() + begin,
            static_cast<int>(text.size() - begin),
            word.data(),
            static_cast<int>(word.size()),
            TRUE);
        if (at < 0)
        {
            return false;
        }
        begin += static_cast<std::size_t>(at);
        const std::size_t end = begin + word.size();
        if ((begin == 0 || !IsWordCharacter(text[begin - 1])) &&
            (end == text.size() || !IsWordCharacter(text[end])))
        {
            return true;
        }
    }
    return false;
}

std::wstring TimeText(const SYSTEMTIME& time, bool hasMilliseconds)
{
    std::wstring text = Basalt::FormatText(
        L"%04hu-%02hu-%02huT%02hu:%02hu:%02hu",
        time.wYear,
        time.wMonth,
        time.wDay,
        time.wHour,
        time.wMinute,
        time.wSecond);
    if (hasMilliseconds)
    {
        Basalt::AppendFormat(text, L".%03hu", time.wMilliseconds);
    }
    return text;
}

/// Events may carry any number.
std::wstring LevelOf(const LogEntry& entry)
{
    const wchar_t* const name = ETWLogging::LogLevelName(entry.level);
    return name != nullptr ? name : std::to_wstring(entry.level);
}

std::wstring FormatJson(const LogEntry& entry)
{
    ordered_json json = {{"version", 1}};
    if (entry.time)
    {
        json["time"] = ToUtf8(TimeText(*entry.time, entry.hasMilliseconds));
        json["level"] = entry.level;
        json["levelName"] = ToUtf8(LevelOf(entry));
    }
    if (entry.tag)
    {
        json["tag"] = ToUtf8(*entry.tag);
    }
    if (entry.process)
    {
        json["process"] = *entry.process;
        json["thread"] = entry.thread;
    }
    if (entry.source)
    {
        json["source"] = ToUtf8(*entry.source);
        json["line"] = entry.line;
    }
    if (entry.function)
    {
        json["function"] = ToUtf8(*entry.function);
    }
    json["message"] = ToUtf8(entry.message);
    return FromUtf8(json.dump());
}

void AppendColumn(std::wstring& text, const std::wstring& value, std::size_t width)
{
    text += value;
    text.append(value.size() < width ? width - value.size() : 0, L' ');
    text += L"  ";
}

/// Further lines of a message are indented, so that entries can be told apart.
std::wstring FormatColumns(const LogEntry& entry)
{
    constexpr std::size_t kLevelColumns = 11;
    constexpr std::size_t kProcessColumns = 11;
    constexpr std::size_t kSourceColumns = 26;
    constexpr std::size_t kFunctionColumns = 40;
    std::wstring text;
    if (entry.time)
    {
        AppendColumn(text, TimeText(*entry.time, entry.hasMilliseconds), 0);
        AppendColumn(text, LevelOf(entry), kLevelColumns);
    }
    if (entry.process)
    {
        AppendColumn(text, Basalt::FormatText(L"%u/%u", *entry.process, entry.thread), kProcessColumns);
    }
    if (entry.source)
    {
        AppendColumn(text, Basalt::FormatText(L"%s:%u", entry.source->c_str(), entry.line), kSourceColumns);
    }
    if (entry.function)
    {
        AppendColumn(text, *entry.function, kFunctionColumns);
    }
    for (const wchar_t character : entry.message)
    {
        text += character;
        text += character == L'\n' ? L"    " : L"";
    }
    return text;
}

} // namespace

bool LogFilter::Wants(const LogEntry& entry) const
{
    return entry.level >= level && (!since || (entry.time && LogMoment::From(*entry.time) >= since)) &&
           (!service || HasWord(entry.message, *service));
}

void CLogPrinter::Add(LogEntry entry)
{
    if (m_filter.Wants(entry))
    {
        m_lines += (m_lines.empty() ? L"" : L"\n") + (m_json ? FormatJson(entry) : FormatColumns(entry));
    }
}

bool CLogPrinter::EndPiece()
{
    if (!m_lines.empty())
    {
        m_console.Out(std::exchange(m_lines, {}));
    }
    return !m_console.HasFailed() && (m_stop == nullptr || ::WaitForSingleObject(m_stop, 0) == WAIT_TIMEOUT);
}

} // namespace TxCtl
