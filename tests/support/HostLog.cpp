#include "support/HostLog.h"

#include <algorithm>
#include <cwchar>
#include <utility>

#include "base/ObfuscatedRegKey.h"
#include "base/Owned.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/Errors.h"
#include "support/Narrow.h"
#include "support/TestGroup.h"

namespace
{

constexpr wchar_t kByteOrderMark = 0xFEFF;
constexpr DWORD kPollMs = 10;

/// Reads a line from left to right, field by field.
class CLineReader
{
public:
    explicit CLineReader(const std::wstring& text) : m_text(text) {}

    [[nodiscard]] bool StartsWith(const wchar_t* part) const
    {
        return m_text.compare(m_at, std::wcslen(part), part) == 0;
    }

    bool Skip(const wchar_t* part)
    {
        const bool found = StartsWith(part);
        m_at += found ? std::wcslen(part) : 0;
        return found;
    }

    /// The text up to a mark, which is passed over; the field's padding on the left is dropped.
    bool ReadTo(const wchar_t* mark, std::wstring& field)
    {
        const std::size_t end = m_text.find(mark, m_at);
        if (end == std::wstring::npos)
        {
            return false;
        }
        const std::size_t begin = std::min(m_text.find_first_not_of(L' ', m_at), end);
        field = m_text.substr(begin, end - begin);
        m_at = end + std::wcslen(mark);
        return true;
    }

    [[nodiscard]] std::wstring Rest() const { return m_text.substr(m_at); }

private:
    const std::wstring& m_text;
    std::size_t m_at = 0;
};

DWORD ToNumber(const std::wstring& text)
{
    return std::wcstoul(text.c_str(), nullptr, 10);
}

/// @return false for text that is not the beginning of a message with all its fields.
bool ParseLine(const std::wstring& text, HostLogLine& line)
{
    CLineReader reader(text);
    bool isGood = reader.ReadTo(L"$", line.time) && reader.Skip(L" -- (") &&
                  reader.ReadTo(L")$", line.level) && reader.Skip(L" ");
    if (isGood && !reader.StartsWith(L" [PID:")) // A missing tag leaves its blank.
    {
        isGood = reader.Skip(L"[") && reader.ReadTo(L"]$", line.tag);
    }
    std::wstring processId;
    std::wstring threadId;
    std::wstring place;
    isGood = isGood && reader.Skip(L" [PID:") && reader.ReadTo(L" TID:", processId) &&
             reader.ReadTo(L"]$", threadId) && reader.Skip(L" [") && reader.ReadTo(L"]$", place) &&
             reader.Skip(L" [") && reader.ReadTo(L"()]$", line.function) && reader.Skip(L" ");
    if (!isGood)
    {
        return false;
    }
    const std::size_t colon = place.rfind(L':');
    line.source = place.substr(0, colon);
    line.line = colon == std::wstring::npos ? 0 : ToNumber(place.substr(colon + 1));
    line.processId = ToNumber(processId);
    line.threadId = ToNumber(threadId);
    line.message = reader.Rest();
    return true;
}

std::wstring ReadText(const std::wstring& path)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(),
        GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, // The host keeps writing.
        nullptr,
        OPEN_EXISTING,
        0,
        nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.Get(), &size))
    {
        return {};
    }
    std::wstring text(static_cast<std::size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
    DWORD read = 0;
    const auto wanted = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (!::ReadFile(file.Get(), text.data(), wanted, &read, nullptr))
    {
        ThrowError(L"ReadFile(" + path + L")", ::GetLastError());
    }
    text.resize(read / sizeof(wchar_t));
    return text;
}

} // namespace

void PrintTo(const HostLogLine& line, std::ostream* stream)
{
    *stream << Narrow(line.level + L" " + line.function + L": " + line.message);
}

std::vector<HostLogLine> ParseHostLog(const std::wstring& text)
{
    std::vector<HostLogLine> lines;
    std::size_t at = !text.empty() && text[0] == kByteOrderMark ? 1 : 0;
    while (at < text.size())
    {
        const std::size_t end = std::min(text.find(L'\n', at), text.size());
        std::wstring part = text.substr(at, end - at);
        if (!part.empty() && part.back() == L'\r')
        {
            part.pop_back();
        }
        at = end + 1;
        HostLogLine line;
        if (ParseLine(part, line))
        {
            lines.push_back(std::move(line));
        }
        else if (!lines.empty())
        {
            lines.back().message += L"\n" + part;
        }
    }
    return lines;
}

CHostLog::CHostLog(const std::wstring& folder) : m_path(folder + L"\\PLATFORM.log")
{
    if (!IsRegistryLink(Contract::kProductKey) &&
        !CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true))
    {
        ThrowError(L"cannot make the registry link, without which the host does not find the log's settings");
    }
    Basalt::CObfuscatedRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kLogKey, KEY_READ | KEY_WRITE), L"creating the log's key");
    ThrowIfFailed(key.WriteString(ETWLogging::kFolderSetting.name, folder), L"writing the log's folder");
    ThrowIfFailed(
        key.WriteDword(ETWLogging::kOptionsSetting.name, ETWLogging::kAllOptions),
        L"writing the log's options");
    ThrowIfFailed(
        key.WriteDword(ETWLogging::kLevelSetting.name, ETWLogging::LogNormal), L"writing the log's level");
    ThrowIfFailed(
        key.WriteDword(ETWLogging::kMechanismSetting.name, ETWLogging::kFileMechanism),
        L"writing the log's mechanism");
}

CHostLog::~CHostLog()
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kLogKey);
}

std::vector<HostLogLine> CHostLog::Lines() const
{
    return ParseHostLog(ReadText(m_path));
}

std::size_t CHostLog::Count(const std::wstring& level, const std::wstring& message) const
{
    const std::vector<HostLogLine> lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const HostLogLine& line) {
        return line.level == level && line.message == message;
    }));
}

std::size_t CHostLog::CountContaining(const std::wstring& level, const std::wstring& part) const
{
    const std::vector<HostLogLine> lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const HostLogLine& line) {
        return line.level == level && line.message.find(part) != std::wstring::npos;
    }));
}

bool CHostLog::WaitFor(const std::wstring& level, const std::wstring& message, DWORD timeoutMs) const
{
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    while (!Has(level, message))
    {
        if (::GetTickCount64() >= end)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
    return true;
}
