/// @file
/// Texts and records: lines and files of the text log, events, lists, command lines.
#include <windows.h>
#include <shellapi.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "Campaign.h"
#include "contract/CommandLine.h"
#include "contract/EventRecord.h"
#include "contract/LogLevels.h"
#include "contract/LogLine.h"
#include "contract/LogLineParser.h"
#include "contract/ServiceList.h"
#include "host/TxSvcHost.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/log/LogMoment.h"
#include "txsvcctl/log/LogPrinter.h"
#include "txsvcctl/log/LogText.h"
#include "txsvcctl/service/ImagePath.h"

using namespace ETWLogging;

namespace
{

std::string BytesOf(const std::wstring& text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

bool IsSame(const LogEntry& left, const LogEntry& right)
{
    return left.time.has_value() == right.time.has_value() &&
           (!left.time || std::memcmp(&*left.time, &*right.time, offsetof(SYSTEMTIME, wMilliseconds)) == 0) &&
           left.level == right.level && left.tag == right.tag && left.process == right.process &&
           left.thread == right.thread && left.source == right.source && left.line == right.line &&
           left.function == right.function && left.message == right.message;
}

/// What a field shows: cut, and without the blanks that fill it up.
std::wstring Shown(const std::wstring& text, std::size_t columns)
{
    std::wstring shown = text.substr(0, columns);
    return shown.erase(0, shown.find_first_not_of(L' '));
}

SYSTEMTIME SomeTime(CDecisions& input)
{
    SYSTEMTIME time{};
    time.wYear = static_cast<WORD>(1601 + input.Number() % 29000);
    time.wMonth = static_cast<WORD>(1 + input.Below(12));
    time.wDay = static_cast<WORD>(1 + input.Below(28));
    time.wHour = static_cast<WORD>(input.Below(24));
    time.wMinute = static_cast<WORD>(input.Below(60));
    time.wSecond = static_cast<WORD>(input.Below(60));
    return time;
}

/// An entry as a logger could have it, and the line that it writes then.
struct Written
{
    LogEntry entry;
    std::wstring line;
};

/// What looks like a field cannot be told from one: a message's own blanks, a function's name with "]$" in
/// it.
Written SomeLine(CDecisions& input, const wchar_t* notInMessage)
{
    constexpr DWORD kMostShown = MAXLONG; // The line prints numbers with a sign.
    LogLineFields fields;
    fields.time = SomeTime(input);
    fields.options = input.Byte() & (LogOptionProcess | LogOptionSource | LogOptionTag | LogOptionFunction);
    const std::wstring tag = input.Text(20, L"$");
    const std::wstring file = input.Text(30, L"\\$");
    const std::wstring function = input.Text(50, L"$");
    constexpr wchar_t kLineEndAtOddPlace[] = L"\x0A41\x0100"; // Its bytes: 41 0A 00 01.
    const std::wstring message =
        L"m" + input.Text(60, notInMessage) + (input.Flag() ? kLineEndAtOddPlace : L"");
    fields.tag = tag.c_str();
    fields.processId = input.Number() & kMostShown;
    fields.threadId = input.Number() & kMostShown;
    fields.file = file.c_str();
    fields.line = input.Number() & kMostShown;
    fields.function = function.c_str();
    LogEntry entry;
    entry.time = fields.time;
    entry.level = 1 + static_cast<DWORD>(input.Below(5));
    entry.message = message;
    const auto has = [&fields](DWORD option, bool isThere) {
        return (fields.options & option) != 0 && isThere;
    };
    if (has(LogOptionTag, !tag.empty()))
    {
        entry.tag = Shown(tag, kTagColumns);
    }
    if (has(LogOptionProcess, true))
    {
        entry.process = fields.processId;
        entry.thread = fields.threadId;
    }
    if (has(LogOptionSource, !file.empty()))
    {
        entry.source = Shown(file, kSourceColumns);
        entry.line = fields.line;
    }
    if (has(LogOptionFunction, !function.empty()))
    {
        entry.function = Shown(function, kFunctionColumns);
    }
    const bool isSecond = entry.level == LogInformation && input.Flag(); // Both have the one name.
    const wchar_t* const level = LogLevelName(isSecond ? DWORD{LogInformation2} : entry.level);
    return {entry, BuildLogLine(fields, level, message.c_str())};
}

constexpr wchar_t kSampleLine[] =
    L"11/24/2026 01:05:09 PM$ -- (Error)$ [       TxSvHost]$ [PID:   12 TID:   34]$ "
    L"[           TxSvcHost:  100]$ [                       CTxSvcHost::Start()]$ ---";

class CLogLines final : public ISubject
{
public:
    const char* Name() const noexcept override { return "log lines"; }
    unsigned Share() const noexcept override { return 290; }
    std::vector<std::string> Seeds() const override
    {
        return {
            std::string("\0", 1),
            "\1" + BytesOf(kSampleLine),
            "\1" + BytesOf(L"1/1/2026 12:00:00 AM$ -- (Normal)$   m")};
    }

    void Try(CDecisions input) override { input.Flag() ? tryAny(input.RestAsText()) : tryWritten(input); }

private:
    static void tryWritten(CDecisions& input)
    {
        const Written written = SomeLine(input, L"");
        Require(written.line.ends_with(L"\r\n"), "a line has no end");
        const auto parsed = ParseLogLine(written.line.substr(0, written.line.size() - 2));
        Require(parsed.has_value(), "a written line is not read");
        Require(IsSame(*parsed, written.entry), "a written line is read as something else");
    }

    static void tryAny(const std::wstring& line)
    {
        constexpr std::size_t kLongestForEachPart = 200;
        const auto parsed = ParseLogLine(line);
        const bool may = MayBeginLogEntry(line);
        if (!parsed)
        {
            return;
        }
        Require(may, "a line that begins an entry may not begin one");
        Require(parsed->time && LogLevelName(parsed->level) != nullptr, "an entry has no time or level");
        for (std::size_t size = 0; size < std::min(line.size(), kLongestForEachPart); ++size)
        {
            Require(MayBeginLogEntry(line.substr(0, size)), "the beginning of a line may not begin an entry");
        }
    }
};

class CEntries final : public TxCtl::ILogSink
{
public:
    void Add(LogEntry entry) override { all.push_back(std::move(entry)); }
    bool EndPiece() override { return true; }

    std::vector<LogEntry> all;
};

class CLines final : public TxCtl::IConsole
{
public:
    void Out(const std::wstring& text) override { all += text + L"\n"; }
    void Error(const std::wstring& text) override { Out(text); }

    std::wstring all;
};

/// Files of the text log, in each encoding, in pieces.
class CLogFiles final : public ISubject
{
public:
    const char* Name() const noexcept override { return "log files"; }
    unsigned Share() const noexcept override { return 140; }
    std::vector<std::string> Seeds() const override
    {
        const std::string line = BytesOf(std::wstring(kSampleLine) + L"\r\nsecond line\n");
        return {
            "\1" + line + line, "\1\xFF\xFE" + line, "\1" + TxCtl::ToUtf8(kSampleLine) + "\n\xE4\xF6\r\n"};
    }

    void Try(CDecisions input) override
    {
        const bool isRaw = input.Flag();
        std::string cuts;
        for (int i = 0; i < 6; ++i)
        {
            cuts += static_cast<char>(input.Byte());
        }
        std::vector<LogEntry> written;
        const std::string file = isRaw ? std::string(input.Rest()) : someFile(input, written);
        CEntries whole;
        TxCtl::CLogText text;
        text.Feed(file.data(), file.size(), whole);
        text.Finish(whole);
        Require(isRaw || std::ranges::equal(whole.all, written, &IsSame), "a file is read as something else");
        checkPieces(file, cuts, whole.all);
        checkJson(whole.all);
    }

private:
    static std::string someFile(CDecisions& input, std::vector<LogEntry>& entries)
    {
        const bool isWide = input.Flag();
        const bool isMarked = input.Flag();
        // Half a surrogate pair has no form in UTF-8.
        const auto kept = [isWide](std::wstring& text) {
            text = isWide ? text : TxCtl::FromUtf8(TxCtl::ToUtf8(text));
        };
        std::string file = !isMarked ? "" : isWide ? "\xFF\xFE" : "\xEF\xBB\xBF";
        for (std::size_t left = 1 + input.Below(4); left != 0; --left)
        {
            Written written = SomeLine(input, L"");
            const std::wstring further = input.Flag() ? L"x" + input.Text(10, L"") : L"";
            written.entry.message += further.empty() ? L"" : L"\n" + further;
            const std::wstring lines = written.line + (further.empty() ? L"" : further + L"\n");
            file += isWide ? BytesOf(lines) : TxCtl::ToUtf8(lines);
            for (std::optional<std::wstring>* const text :
                 {&written.entry.tag, &written.entry.source, &written.entry.function})
            {
                *text ? kept(**text) : void();
            }
            kept(written.entry.message);
            entries.push_back(std::move(written.entry));
        }
        return file;
    }

    /// However the bytes come, and whether the end was cut off meanwhile, the entries are the same.
    static void checkPieces(
        const std::string& file, const std::string& cuts, const std::vector<LogEntry>& whole)
    {
        CEntries entries;
        TxCtl::CLogText text;
        std::size_t at = 0;
        for (std::size_t i = 0; at < file.size(); ++i)
        {
            const std::size_t size =
                std::min<std::size_t>(file.size() - at, 1 + static_cast<BYTE>(cuts[i % cuts.size()]) % 64);
            text.Feed(file.data() + at, size, entries);
            if (size % 3 == 0 && text.TakeBack(size))
            {
                text.Feed(file.data() + at, size, entries);
            }
            at += size;
        }
        text.Finish(entries);
        Require(std::ranges::equal(entries.all, whole, &IsSame), "a file in pieces has other entries");
    }

    static void checkJson(const std::vector<LogEntry>& entries)
    {
        CLines lines;
        TxCtl::CLogPrinter printer({}, true, nullptr, lines);
        TxCtl::CLogPrinter columns({.level = 1, .service = L"m", .since = {}}, false, nullptr, lines);
        for (const LogEntry& entry : entries)
        {
            columns.Add(entry);
            printer.Add(entry);
            static_cast<void>(printer.EndPiece());
            const auto json = nlohmann::json::parse(TxCtl::ToUtf8(lines.all), nullptr, false);
            Require(json.is_object(), "an entry's JSON is none");
            Require(json["message"] == TxCtl::ToUtf8(entry.message), "a message is another one in JSON");
            lines.all.clear();
        }
        static_cast<void>(columns.EndPiece());
    }
};

class CEvents final : public ISubject
{
public:
    const char* Name() const noexcept override { return "events"; }
    unsigned Share() const noexcept override { return 150; }
    std::vector<std::string> Seeds() const override
    {
        LogEntry entry;
        entry.level = 3;
        return {std::string("\0", 1), "\1" + encode(entry)};
    }

    void Try(CDecisions input) override
    {
        if (input.Flag())
        {
            tryAny(input.Rest());
            return;
        }
        LogEntry entry;
        entry.level = input.Number();
        entry.source = input.Text(30, L"");
        entry.function = input.Text(30, L"");
        entry.line = input.Number();
        entry.tag = input.Text(20, L"");
        entry.process = input.Number();
        entry.thread = input.Number();
        entry.message = input.Text(100, L"");
        const std::optional<LogEntry> decoded = decode(encode(entry));
        Require(decoded.has_value(), "a written event is not read");
        Require(IsSame(*decoded, entry), "a written event is read as something else");
    }

private:
    void tryAny(std::string_view bytes)
    {
        const std::optional<LogEntry> entry = decode(bytes);
        if (entry)
        {
            const std::optional<LogEntry> again = decode(encode(*entry));
            Require(again && IsSame(*again, *entry), "an event that was read is read differently again");
        }
    }

    std::optional<LogEntry> decode(std::string_view bytes)
    {
        bytes = bytes.substr(0, 4000);
        return DecodeMessageEvent(m_bytes.Put(bytes), bytes.size());
    }

    static std::string encode(const LogEntry& entry)
    {
        std::string bytes;
        const auto number = [&bytes](DWORD value) {
            bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
        };
        const auto text = [&bytes](const std::wstring& value) { bytes += BytesOf(value + L'\0'); };
        number(entry.level);
        text(entry.source.value_or(L""));
        text(entry.function.value_or(L""));
        number(entry.line);
        text(entry.tag.value_or(L""));
        number(entry.process.value_or(0));
        number(entry.thread);
        text(entry.message);
        return bytes;
    }

    CGuardedBytes m_bytes;
};

class CServiceLists final : public ISubject
{
public:
    const char* Name() const noexcept override { return "service lists"; }
    unsigned Share() const noexcept override { return 130; }
    std::vector<std::string> Seeds() const override { return {BytesOf(L"a;b:c,d"), BytesOf(L";;")}; }

    void Try(CDecisions input) override
    {
        const std::wstring list = input.RestAsText();
        const std::vector<std::wstring> names = Contract::SplitServiceList(list);
        std::vector<std::wstring> expected(1);
        for (const wchar_t character : list)
        {
            const bool isSeparator = character == L';' || character == L':' || character == L',';
            isSeparator ? expected.emplace_back() : expected.back() += character;
        }
        std::erase(expected, L"");
        Require(names == expected, "a service list is split wrongly");
        Require(
            Contract::SplitServiceList(Contract::JoinServiceList(names)) == names,
            "a joined service list is split into something else");
    }
};

/// What the tool writes for the service manager, the host must read; and whatever else stands there.
class CCommandLines final : public ISubject
{
public:
    const char* Name() const noexcept override { return "command lines"; }
    unsigned Share() const noexcept override { return 180; }
    std::vector<std::string> Seeds() const override
    {
        return {
            "\1" + BytesOf(L"\"C:\\Program Files\\TxSvHost.exe\" /TxCoreSvc"),
            "\1" + BytesOf(L"2026-11-24 13:05:09"),
            "\1" + BytesOf(L"15m")};
    }

    void Try(CDecisions input) override
    {
        if (!input.Flag())
        {
            tryWritten(input);
            return;
        }
        const std::wstring text = input.RestAsText();
        const TxCtl::ImagePath parsed = TxCtl::ParseImagePath(text);
        Require(parsed.program.find(L'"') == std::wstring::npos, "a program has quotes");
        tryMoment(text);
        std::wstring entry = text.c_str();
        wchar_t* arguments[] = {entry.data(), entry.data(), nullptr};
        std::wstring group = L"as it was";
        const std::size_t delimiter = entry.find(L'/');
        const bool isGroup = delimiter != std::wstring::npos && delimiter + 1 < entry.size();
        Require(
            m_host.ParseCommandLine(2, arguments, group) == isGroup,
            "a group entry is taken, or not, wrongly");
        Require(
            group == (isGroup ? entry.substr(delimiter + 1) : L"as it was"), "a group has the wrong name");
        Require(!m_host.ParseCommandLine(1, arguments, group), "a command line without a group has one");
        Require(!m_host.ParseCommandLine(2, nullptr, group), "no command line has a group");
    }

private:
    void tryWritten(CDecisions& input)
    {
        const std::wstring group = input.Flag() ? input.Text(60) : input.Text(60, L";:,/\\\"'");
        const std::wstring program = L"C:\\" + input.Text(60, L"\"<>|?*/") + L".exe";
        try
        {
            TxCtl::CheckGroupName(group);
        }
        catch (const TxCtl::CToolError&)
        {
            return;
        }
        const std::wstring line = TxCtl::FormatImagePath(program, group);
        const TxCtl::ImagePath parsed = TxCtl::ParseImagePath(line);
        Require(parsed.program == program, "an image path has another program");
        Require(TxCtl::RunsGroup(parsed, group), "an image path runs another group");
        int count = 0;
        wchar_t** const arguments = ::CommandLineToArgvW(line.c_str(), &count);
        std::wstring taken;
        const bool isTaken = m_host.ParseCommandLine(count, arguments, taken);
        const std::wstring first = arguments[0];
        ::LocalFree(arguments);
        Require(count == 2 && first == program, "the host finds another program in an image path");
        Require(isTaken && taken == group, "the host finds another group in an image path");
    }

    static void tryMoment(const std::wstring& text)
    {
        try
        {
            static_cast<void>(TxCtl::LogMoment::Parse(text));
        }
        catch (const TxCtl::CToolError&) // NOLINT(bugprone-empty-catch): that is how it refuses.
        {
        }
    }

    CTxSvcHost m_host;
};

} // namespace

void AddTextSubjects(Subjects& subjects)
{
    subjects.push_back(std::make_unique<CLogLines>());
    subjects.push_back(std::make_unique<CLogFiles>());
    subjects.push_back(std::make_unique<CEvents>());
    subjects.push_back(std::make_unique<CServiceLists>());
    subjects.push_back(std::make_unique<CCommandLines>());
}
