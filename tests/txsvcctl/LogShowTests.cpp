#include "txsvcctl/LogShow.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "CtlTest.h"
#include "base/Owned.h"
#include "logging/LogFile.h"
#include "logging/LogLine.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/Utf8.h"

using ETWLogging::BuildLogLine;
using nlohmann::json;

namespace
{

constexpr wchar_t kBreaks[] = L"one\r\n\n two\n[x]$ three";

std::string Utf16(const std::wstring& text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

class CCollector final : public TxCtl::ILogSink
{
public:
    void Add(TxCtl::LogEntry entry) override { entries.push_back(std::move(entry)); }
    bool PieceIsRead() override { return true; }
    std::vector<TxCtl::LogEntry> entries;
};

std::vector<TxCtl::LogEntry> Split(const std::string& bytes, std::size_t piece)
{
    CCollector collector;
    TxCtl::CLogText text;
    for (std::size_t at = 0; at < bytes.size(); at += piece)
    {
        text.Feed(bytes.data() + at, std::min(piece, bytes.size() - at), collector);
    }
    text.Finish(collector);
    return collector.entries;
}

TEST(LogText, GivesBackWhatLinesWereBuiltFrom)
{
    const wchar_t* const files[] = {L"src\\A$b[1]:2.cpp", L"a file with a very long name.cpp", nullptr};
    const wchar_t* const functions[] = {
        L"CClass::operator()", L"", L"[$]()$ and more than is fit to be a name, really"};
    const wchar_t* const messages[] = {L"text", L"5$ [ a]$ -- (Error)$", kBreaks, L"last\n"};
    std::vector<ETWLogging::LogLineFields> built;
    std::wstring text;
    for (DWORD i = 0; i < 16 * 3 * 3; ++i) // All choices of fields, each with all texts.
    {
        built.push_back(
            {(i & 15) << 2,
             L"a tag [of $] more",
             i,
             4294967,
             {},
             files[i / 16 % 3],
             i * 1001,
             functions[i / 48]});
        built[i].time = {2026, static_cast<WORD>(i % 12 + 1), 0, 28, static_cast<WORD>(i % 24), 59, 7, 0};
        text += BuildLogLine(built[i], ETWLogging::LogLevelName(i % 5 + 1), messages[i % 4]);
    }
    const std::string encodings[] = {
        Utf16(L"\xFEFF" + text), Utf16(text), TxCtl::ToUtf8(text), "\xEF\xBB\xBF" + TxCtl::ToUtf8(text)};
    for (std::size_t i = 0; i < 4 * 3; ++i)
    {
        SCOPED_TRACE(i);
        const std::vector<TxCtl::LogEntry> entries = Split(encodings[i / 3], i % 3 == 0 ? 1 : i * 100 + 1);
        ASSERT_EQ(entries.size(), built.size());
        for (DWORD k = 0; k < entries.size(); ++k)
        {
            const TxCtl::LogEntry& entry = entries[k];
            const ETWLogging::LogLineFields& in = built[k];
            ASSERT_EQ(std::memcmp(&entry.time.value(), &in.time, sizeof(in.time)), 0);
            const auto wanted = [&in](DWORD bit, const std::wstring& value) {
                return (in.options & bit) != 0 && !value.empty() ? std::optional(value) : std::nullopt;
            };
            const std::wstring file = in.file == nullptr ? L"" : in.file;
            ASSERT_EQ(entry.level, k % 5 + 1);
            ASSERT_EQ(entry.tag, wanted(0x10, L"a tag [of $] mo"));
            ASSERT_EQ(entry.process, (in.options & 4) != 0 ? std::optional(k) : std::nullopt);
            ASSERT_EQ(entry.source, wanted(0x08, file.substr(file.rfind(L'\\') + 1).substr(0, 20)));
            ASSERT_EQ(entry.line, entry.source ? k * 1001 : 0);
            ASSERT_EQ(entry.function, wanted(0x20, std::wstring(in.function).substr(0, 40)));
            const wchar_t* const read[] = {messages[0], messages[1], L"one\n\n two\n[x]$ three", L"last"};
            ASSERT_EQ(Narrow(entry.message), Narrow(read[k % 4]));
        }
    }
}

TEST(LogText, TornAndForeignTextIsKeptApart)
{
    const std::string head = "11/24/2026 12:05:07 AM$ -- (Error)$ ";
    const struct
    {
        std::string bytes;
        std::vector<std::string> messages;
    } table[] = {
        {head + "a\r\n" + head + "torn", {"a", "torn"}},
        {head + "a\r\n11/24/2026 12:05:07 AM$ -- (Err", {"a"}},
        {head + "a\r\nb", {"a\nb"}},
        {"rest\r\n\r\n" + head + "a\r\n13/24/2026 12:05:07 AM$ -- (Error)$ b\n",
         {"rest\n", "a\n13/24/2026 12:05:07 AM$ -- (Error)$ b"}},
        {head + "\xE4\xF6\n" + head + "\xC3\xA4\n", {"\xC3\xA4\xC3\xB6", "\xC3\xA4"}},
        {Utf16(L"\xFEFF" + TxCtl::FromUtf8(head) + L"\xE4") + '\n', {"\xC3\xA4"}},
        {"", {}},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.bytes);
        std::vector<std::string> messages;
        for (const TxCtl::LogEntry& entry : Split(row.bytes, 5))
        {
            messages.push_back(TxCtl::ToUtf8(entry.message));
        }
        EXPECT_EQ(messages, row.messages);
    }
}

class LogShowTest : public CtlTest
{
protected:
    /// Appends a message of the level, which also tells the hour, as the logger does.
    void Write(DWORD level, const std::wstring& message)
    {
        SYSTEMTIME time = {2026, 11, 0, 24, static_cast<WORD>(level), 0, 0, 0};
        if (level == 0)
        {
            ::GetLocalTime(&time);
        }
        ETWLogging::CLogFile::COpened opened;
        ASSERT_EQ(m_log.Open(true, opened), DWORD{0});
        const ETWLogging::LogLineFields fields{0x3C, L"tag", 12, 34, time, L"a.cpp", 56, L"CA::B"};
        const wchar_t* const name = ETWLogging::LogLevelName(level);
        ASSERT_EQ(
            m_log.Write(opened, BuildLogLine(fields, name ? name : L"Normal", message.c_str())), DWORD{0});
    }

    CTestFolder m_folder;
    ETWLogging::CLogFile m_log;
};

TEST_F(LogShowTest, ShowsTheConfiguredLogWithItsOlderFilesAndWhatIsAskedFor)
{
    m_log.SetPath(m_folder.File(L"x.log"));
    m_log.SetRotation(2, 5);
    Write(1, L"first");
    Write(2, L"alpha-2 and alphabet");
    Write(3, L"of 'Alpha'.");
    Write(4, kBreaks);
    Write(0, L"now");
    ASSERT_EQ(Run({L"log", L"set", L"folder", m_folder.Path()}).exitCode, 0);
    ASSERT_EQ(Run({L"log", L"set", L"file", L"x.log"}).exitCode, 0);
    const struct
    {
        std::vector<std::wstring> arguments;
        std::string messages; ///< Their first words.
    } table[] = {
        {{}, "first alpha-2 of one now "},
        {{m_folder.File(L"x.1.log")}, "of one "},
        {{L"--level", L"3"}, "of one "},
        {{L"--level", L"6"}, "of one "},
        {{L"--service", L"ALPHA"}, "of "},
        {{L"--since", L"2026-11-24 03:00"}, "of one now "},
        {{L"--since", L"2026-11-24T03:00:01"}, "one now "},
        {{L"--since", L"2h", L"--level", L"1"}, "now "},
    };
    for (const auto& row : table)
    {
        std::vector<std::wstring> arguments = {L"log", L"show", L"--json"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        std::string messages;

        const CtlResult result = Run(arguments);

        std::string rest = TxCtl::ToUtf8(result.out);
        for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n'))
        {
            const std::string message = json::parse(rest.substr(0, end))["message"];
            messages += message.substr(0, message.find_first_of(" \n")) + " ";
            rest.erase(0, end + 1);
        }
        EXPECT_EQ(messages, row.messages) << Narrow(result.error);
    }

    const std::wstring file = m_folder.File(L"x.1.log");
    const std::wstring columns = Run({L"log", L"show", file, L"--level", L"4"}).out;
    const json entry =
        json::parse(TxCtl::ToUtf8(Run({L"log", L"show", file, L"--level", L"4", L"--json"}).out));
    EXPECT_EQ(
        columns,
        L"2026-11-24T04:00:00  Error        12/34        a.cpp:56                    " +
            std::wstring(L"CA::B                                     one\n    \n     two\n    [x]$ three\n"));
    EXPECT_EQ(
        entry,
        json(
            {{"time", "2026-11-24T04:00:00"},
             {"level", 4},
             {"levelName", "Error"},
             {"tag", "tag"},
             {"process", 12},
             {"thread", 34},
             {"source", "a.cpp"},
             {"line", 56},
             {"function", "CA::B"},
             {"message", "one\n\n two\n[x]$ three"}}));
}

TEST_F(LogShowTest, WrongCommandLinesAndMissingLogsAreTold)
{
    const struct
    {
        std::vector<std::wstring> arguments;
        int exitCode;
        const wchar_t* error;
    } table[] = {
        {{L"--level", L"0"}, 2, L"--level"},
        {{L"--level", L"7"}, 2, L"--level"},
        {{L"--service", L""}, 2, L"empty name"},
        {{L"--since", L"2026-02-30"}, 2, L"'2026-02-30' is no time"},
        {{L"--since", L"2026-11-24 1"}, 2, L"is no time"},
        {{L"--since", L"h"}, 2, L"is no time"},
        {{L"--since", L"999999d"}, 2, L"is no time"},
        {{m_folder.File(L"none.log")}, 1, L"none.log': error 2: "},
        {{m_folder.File(L"none\\x.log"), L"--follow"}, 1, L"cannot watch folder"},
        {{}, 1, L"set mechanism file"}, // Nothing is set: the default file is not there.
    };
    for (const auto& row : table)
    {
        std::vector<std::wstring> arguments = {L"log", L"show"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());

        const CtlResult result = Run(arguments);

        EXPECT_EQ(result.exitCode, row.exitCode) << Narrow(result.error);
        EXPECT_NE(result.error.find(row.error), std::wstring::npos) << Narrow(result.error);
        EXPECT_EQ(result.out, L"");
    }
}

class CWaitingConsole final : public TxCtl::IConsole
{
public:
    explicit CWaitingConsole(const wchar_t* last) : m_last(last) {}
    void Out(const std::wstring& text) override
    {
        lines += text + L"\n";
        if (lines.ends_with(m_last))
        {
            ::SetEvent(seen.Get());
        }
    }
    void Error(const std::wstring& text) override { Out(text); }

    const Basalt::CHandle seen{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::wstring lines; ///< Of the follower's thread.

private:
    const wchar_t* m_last;
};

TEST_F(LogShowTest, FollowingLosesNoLineAtRotationsAndEndsWhenStopped)
{
    constexpr int kLines = 400;
    m_log.SetPath(m_folder.File(L"x.log"));
    m_log.SetRotation(7, 99);
    const Basalt::CHandle stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    CWaitingConsole console(L"  399\n");
    std::wstring expected;
    {
        const std::jthread follower(
            [&] { TxCtl::CLogShow(m_log.GetPath(), 99, {}, stop.Get(), console).Follow(); });
        for (int i = 0; i < kLines; ++i)
        {
            Write(1, std::to_wstring(i));
            expected += std::to_wstring(i) + L"\n";
        }
        EXPECT_EQ(::WaitForSingleObject(console.seen.Get(), 20000), WAIT_OBJECT_0);
        ::SetEvent(stop.Get());
    }
    std::wstring seen;
    for (std::size_t end = 0, begin = 0; (end = console.lines.find(L'\n', begin)) != std::wstring::npos;
         begin = end + 1)
    {
        seen +=
            console.lines.substr(console.lines.rfind(L' ', end) + 1, end - console.lines.rfind(L' ', end));
    }
    EXPECT_EQ(Narrow(seen), Narrow(expected));
}

} // namespace
