#include "contract/EventRecord.h"

#include <cstring>
#include <utility>

namespace ETWLogging
{

namespace
{

/// Hands out one field after the other; false when the rest is too short for it.
class CFieldReader
{
public:
    CFieldReader(const BYTE* data, std::size_t size) noexcept : m_at(data), m_left(size) {}

    bool Read(DWORD& number) noexcept { return copy(&number, sizeof(number)); }

    bool Read(std::wstring& text)
    {
        for (wchar_t character = 0; copy(&character, sizeof(character));)
        {
            if (character == L'\0')
            {
                return true;
            }
            text += character;
        }
        return false;
    }

    [[nodiscard]] bool IsAtEnd() const noexcept { return m_left == 0; }

private:
    bool copy(void* target, std::size_t size) noexcept
    {
        if (m_left < size)
        {
            return false;
        }
        std::memcpy(target, m_at, size);
        m_at += size;
        m_left -= size;
        return true;
    }

    const BYTE* m_at;
    std::size_t m_left;
};

/// As an entry has them.
void NormalizeLineEnds(std::wstring& text)
{
    for (std::size_t at = 0; (at = text.find(L"\r\n", at)) != std::wstring::npos;)
    {
        text.erase(at, 1);
    }
    if (text.ends_with(L'\n'))
    {
        text.pop_back();
    }
}

} // namespace

std::optional<LogEntry> DecodeMessageEvent(const BYTE* data, std::size_t size)
{
    CFieldReader reader(data, size);
    LogEntry entry;
    const bool isWhole = reader.Read(entry.level) && reader.Read(entry.source.emplace()) &&
                         reader.Read(entry.function.emplace()) && reader.Read(entry.line) &&
                         reader.Read(entry.tag.emplace()) && reader.Read(entry.process.emplace()) &&
                         reader.Read(entry.thread) && reader.Read(entry.message) && reader.IsAtEnd();
    NormalizeLineEnds(entry.message);
    return isWhole ? std::optional(std::move(entry)) : std::nullopt;
}

} // namespace ETWLogging
