#include "txsvcctl/LogShow.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "CtlTest.h"
#include "base/Owned.h"
#include "base/Text.h"
#include "logging/text/LogFile.h"
#include "contract/LogLine.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/common/Utf8.h"

using ETWLogging::BuildLogLine;
using TxCtl::ToUtf8;

namespace
{

std::string Utf16(const std::wstring& text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

class LogShowTest : public CtlTest
{
protected:
    LogShowTest() { m_log.SetPath(m_file); }

    /// Appends a message, as the logger does. The hour is the level.
    void Write(WORD level, const std::wstring& message)
    {
        ETWLogging::CLogFile::COpened file;
        ASSERT_EQ(m_log.Open(true, file), DWORD{0});
        const SYSTEMTIME time = {2026, 11, 0, 24, level, 0, 0, 0};
        const wchar_t* const name = ETWLogging::LogLevelName(level);
        ASSERT_EQ(m_log.Write(file, BuildLogLine({0, L"", 0, 0, time}, name, message.c_str())), DWORD{0});
    }

    std::string Show(const std::string& bytes, const wchar_t* form)
    {
        std::ofstream(std::filesystem::path(m_file), std::ios::binary) << bytes;
        return ToUtf8(Run({L"log", L"show", m_file, form}).out);
    }

    CTestFolder m_folder;
    std::wstring m_file = m_folder.File(L"x.log");
    ETWLogging::CLogFile m_log;
};

TEST_F(LogShowTest, GivesBackWhatLinesWereBuiltFrom)
{
    // What is written, and what is read where that differs.
    using Texts = const wchar_t* const[][2];
    const Texts files = {
        {L"A$[1]:2.cpp"}, {L"s\\a very long name of a file", L"a very long name of "}, {nullptr}};
    const Texts functions = {
        {L"C::operator()"},
        {L""},
        {L"[$]()$ is longer than any field can be: cut", L"[$]()$ is longer than any field can be: "}};
    const Texts messages = {
        {L"5$ [ a]$ -- (Error)$"}, {L"a\n", L"a"}, {L"a\r\n\n [$", L"a\\n\\n [$"}, {L"\u00e4\u4e2d"}};
    std::wstring text;
    std::wstring expected;
    for (DWORD i = 0; i < 16 * 3 * 3 * 4; ++i) // All choices of fields with all texts.
    {
        const DWORD options = (i & 15) << 2;
        const wchar_t* const level = ETWLogging::LogLevelName(i % 5 + 1);
        const SYSTEMTIME time = {2026, 1, 0, 28, static_cast<WORD>(i % 24), 59, 7, 0};
        const auto& [file, fileRead] = files[i / 16 % 3];
        const auto& [function, functionRead] = functions[i / 48 % 3];
        const auto& [message, messageRead] = messages[i / 144];
        text += BuildLogLine(
            {options, L"a tag [of $] more", i, 4294967, time, file, i * 1001, function}, level, message);
        const auto add = [&](DWORD option, const wchar_t* format, auto... values) {
            Basalt::AppendFormat(expected, (options & option) == option ? format : L"", values...);
        };
        add(0, LR"({"time":"2026-01-28T%02u:59:07","level":%u)", i % 24, i % 5 + 1);
        add(0, LR"(,"levelName":"%s")", level);
        add(0x10, LR"(,"tag":"a tag [of $] mo")");
        add(0x04, LR"(,"process":%u,"thread":4294967)", i);
        add(0x08, file ? LR"(,"source":"%s","line":%u)" : L"", fileRead ? fileRead : file, i * 1001);
        add(0x20, *function ? LR"(,"function":"%s")" : L"", functionRead ? functionRead : function);
        add(0, L",\"message\":\"%s\"}\n", messageRead ? messageRead : message);
    }

    EXPECT_EQ(Show(Utf16(L"\xFEFF" + text), L"--json"), ToUtf8(expected));
    EXPECT_EQ(Show(Utf16(text), L"--json"), ToUtf8(expected));
    EXPECT_EQ(Show(ToUtf8(text), L"--json"), ToUtf8(expected));
}

TEST_F(LogShowTest, TornAndForeignTextIsKeptApart)
{
    const std::string in = "11/24/2026 12:05:07 PM$ -- (Error)$ ";
    const std::string out = "2026-11-24T12:05:07  Error        ";
    const std::string table[][2] = {
        {in + "a\r\n" + in + "torn", out + "a\n" + out + "torn\n"},
        {in + "a\r\n11/24/2026 12:05:07 PM$ -- (Err", out + "a\n"},
        {in + "a\r\nb", out + "a\n    b\n"},
        {"rest\r\n" + in + "a\r\n13" + in + "b\n", "rest\n" + out + "a\n    13" + in + "b\n"},
        {"\xEF\xBB\xBF" + in + "\xE4\n", out + "\xC3\xA4\n"}, // The system's code page.
        {in + "[PID:    1 TID:    2]$ [                   a:    3]$ b\n",
         out + "1/2          a:3                         b\n"},
        {Utf16(TxCtl::FromUtf8(in) + L"\xE4") + '\n', out + "\xC3\xA4\n"},
    };
    for (const auto& row : table)
    {
        EXPECT_EQ(Show(row[0], L"--"), row[1]);
    }
}

TEST_F(LogShowTest, ShowsWhatIsAskedForOfTheConfiguredLog)
{
    EXPECT_NE(Run({L"log", L"show"}).error.find(L"mechanism file"), std::wstring::npos);
    ASSERT_EQ(Run({L"log", L"set", L"folder", m_folder.Path()}).exitCode, 0);
    ASSERT_EQ(Run({L"log", L"set", L"file", L"x.log"}).exitCode, 0);
    m_log.SetRotation(2, 5);
    Write(1, L"first");
    Write(2, L"alpha-2 and alphabet");
    Write(3, L"of 'Alpha'.");
    Write(4, L"last");
    const std::wstring missing = m_folder.File(L"none\\x.log");
    const struct
    {
        std::vector<std::wstring> options;
        std::string shown;    ///< the hours
        const wchar_t* error; ///< part of a message
        int exitCode = 0;
    } table[] = {
        {{}, "1234", L""},
        {{m_folder.File(L"x.log")}, "34", L""},
        {{L"--level", L"4"}, "4", L""},
        {{L"--level", L"6"}, "34", L""},
        {{L"--service", L"ALPHA"}, "3", L""},
        {{L"--since", L"2026-11-24 03:00"}, "34", L""},
        {{L"--since", L"2026-11-24T02:00:01", L"--level", L"1"}, "34", L""},
        {{L"--since", L"99999d"}, "1234", L""},
        {{L"--since", L"1m"}, "", L""},
        {{L"--level", L"7"}, "", L"--level", 2},
        {{L"--service", L""}, "", L"empty name", 2},
        {{L"--since", L"2026-02-30"}, "", L"'2026-02-30' is no time", 2},
        {{missing}, "", L"none\\x.log': error 3: ", 1},
        {{missing, L"--follow"}, "", L"cannot watch folder", 1},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.options.empty() ? "all" : Narrow(row.options.back()));
        std::vector<std::wstring> arguments = {L"log", L"show"};
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());

        const CtlResult result = Run(arguments);

        std::string shown;
        for (std::size_t at = 0; (at = result.out.find(L"T0", at)) != std::wstring::npos; ++at)
        {
            shown += static_cast<char>(result.out[at + 2]);
        }
        EXPECT_EQ(shown, row.shown);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_NE(result.error.find(row.error), std::wstring::npos) << Narrow(result.error);
    }
    const auto moment = [](const wchar_t* age) { return static_cast<double>(TxCtl::ParseMoment(age)); };
    EXPECT_NEAR(moment(L"2880m"), moment(L"2d"), 3e7);
    EXPECT_NEAR(moment(L"48h"), moment(L"2d"), 3e7);
}

class CStoppingConsole final : public TxCtl::IConsole
{
public:
    void Out(const std::wstring& text) override
    {
        m_text += text + L"\n";
        ::SetEvent(text.ends_with(L"last") ? m_stop.Get() : nullptr);
    }
    void Error(const std::wstring& text) override { Out(text); }

    const Basalt::CHandle m_stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::wstring m_text; ///< Of the follower's thread while it runs.
};

TEST_F(LogShowTest, FollowingLosesNoLineAtRotationsAndEndsWhenStopped)
{
    CStoppingConsole console;
    std::wstring expected;
    m_log.SetRotation(7, 99);
    std::jthread follower([&] { TxCtl::CLogShow(m_file, 99, {}, console.m_stop.Get(), console).Follow(); });
    for (int i = 0; i < 400; ++i)
    {
        const std::wstring message = i == 399 ? L"last" : std::to_wstring(i);
        Write(1, message);
        expected += L"2026-11-24T01:00:00  Normal       " + message + L"\n";
    }

    EXPECT_EQ(::WaitForSingleObject(console.m_stop.Get(), 20000), WAIT_OBJECT_0);
    ::SetEvent(console.m_stop.Get());
    follower.join();
    EXPECT_EQ(ToUtf8(console.m_text), ToUtf8(expected));
}

} // namespace
