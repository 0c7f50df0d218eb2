#include "txsvcctl/log/LogText.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "contract/LogLineParser.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kByteOrderMark = L'\xFEFF';

/// Longer lines and messages are split: a file that is no log must not fill the memory.
constexpr std::size_t kLongestText = 1 << 20;

} // namespace

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
    if (m_bytes.empty() || ETWLogging::MayBeginLogEntry(decode(0, m_bytes.size())))
    {
        handOn(sink);
    }
}

void CLogText::Finish(ILogSink& sink)
{
    const std::wstring torn = decode(0, m_bytes.size());
    m_bytes.clear();
    if (!torn.empty() && (ETWLogging::ParseLogLine(torn) || !ETWLogging::MayBeginLogEntry(torn)))
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
    std::optional<LogEntry> entry = ETWLogging::ParseLogLine(line);
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
