#include "txsvcctl/LogShow.h"

#include <windows.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "CtlTest.h"
#include "base/Owned.h"
#include "base/Text.h"
#include "logging/LogFile.h"
#include "logging/LogLine.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "txsvcctl/ToolError.h"
#include "txsvcctl/Utf8.h"

using ETWLogging::BuildLogLine;
using TxCtl::ToUtf8;

namespace
{

std::string Utf16(const std::wstring& text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

class LogShowTest : public ::testing::Test
{
protected:
    std::string Show(const std::string& bytes, const wchar_t* form)
    {
        std::ofstream(std::filesystem::path(m_file), std::ios::binary) << bytes;
        return ToUtf8(RunCtl({L"log", L"show", m_file, form}).out);
    }

    CTestFolder m_folder;
    std::wstring m_file = m_folder.File(L"x.log");
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
        {in + "[]$ a\n", out + "[]$ a\n"},
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

TEST_F(LogShowTest, ATornLineHasTheFieldsThatAreWhole)
{
    const std::wstring head = L"11/24/2026 12:05:07 PM$ -- (9)$";
    const std::wstring fields[] = {
        L" [              t]$",
        L" [PID:    1 TID:    2]$",
        L" [               s.cpp:    3]$",
        L" [                                    C::F()]$"};
    for (std::wstring line = head; const std::wstring& field : fields)
    {
        for (std::size_t size = 1; size < field.size(); ++size)
        {
            const std::wstring torn = field.substr(0, size);
            const auto entry = TxCtl::ParseLogLine(line + torn);
            ASSERT_TRUE(entry);
            EXPECT_EQ(Narrow(entry->message), Narrow(torn.substr(1)));
        }
        line += field;
    }
}

/// Reads on as a log goes through its life.
class LogReaderTest : public LogShowTest, private TxCtl::ILogSink
{
protected:
    std::string ReadOn(bool wantsMore = true)
    {
        m_text.clear();
        m_wantsMore = wantsMore;
        EXPECT_EQ(m_reader.ReadOn(false), m_reader.HasFile() && wantsMore);
        return m_text;
    }
    void Append(const std::string& text)
    {
        std::ofstream(m_file.c_str(), std::ios::app | std::ios::binary) << text;
    }
    void Rename(const wchar_t* from, const wchar_t* to)
    {
        std::filesystem::rename(m_folder.File(from), m_folder.File(to));
    }

    const std::string m_line = "11/24/2026 12:05:07 PM$ -- (Error)$ ";

private:
    void Add(TxCtl::LogEntry entry) override { m_text += ToUtf8(entry.message) + ";"; }
    bool EndPiece() override { return m_wantsMore; }

    std::string m_text;
    bool m_wantsMore = true;
    TxCtl::CLogReader m_reader{m_file, 1, *this};
};

TEST_F(LogReaderTest, ReadsEachLineOnceWhateverBecomesOfTheFile)
{
    EXPECT_EQ(ReadOn(), "");
    Append(m_line + "1\r\n");
    EXPECT_EQ(ReadOn(), "1;");
    EXPECT_EQ(ReadOn(), "");
    Append(m_line + "2 to");
    EXPECT_EQ(ReadOn(), "");
    Append("rn\r\nmore\r\n");
    EXPECT_EQ(ReadOn(), "2 torn\nmore;");
    const auto size = std::filesystem::file_size(m_file);
    Append(m_line + "no room");
    EXPECT_EQ(ReadOn(), "");
    std::filesystem::resize_file(m_file, size); // As the logger does then.
    EXPECT_EQ(ReadOn(), "");
    Append(m_line + "3\r\n");
    EXPECT_EQ(ReadOn(), "3;");
    std::filesystem::resize_file(m_file, 0);
    Append(m_line + "4\r\n");
    EXPECT_EQ(ReadOn(), "4;");

    Append(m_line + "5\r\n"); // Two rotations.
    Rename(L"x.log", L"x.2.log");
    Append(m_line + "6\r\n");
    Rename(L"x.log", L"x.1.log");
    Append(m_line + "7\r\n");
    EXPECT_EQ(ReadOn(), "5;6;7;");

    const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(m_folder.File(L"x.1.log"), longAgo);
    std::filesystem::last_write_time(m_folder.File(L"x.2.log"), longAgo);
    Rename(L"x.log", L"gone.log"); // What is numbered is older.
    Append(m_line + "8\r\n");
    EXPECT_EQ(ReadOn(), "8;");

    Append(m_line + "9\r\n" + m_line + "10\r\n");
    Rename(L"x.log", L"x.1.log");
    Append(m_line + "11\r\n");
    EXPECT_EQ(ReadOn(false), "9;");
}

PHANDLER_ROUTINE s_onControl;

class CFollowing final : public CtlResult
{
public:
    void Out(const std::wstring& text) override
    {
        CtlResult::Out(text);
        m_isAtEnd = text.ends_with(L"last");
        ::SetEvent(m_hasBegun.Get());
    }

    const Basalt::CHandle m_hasBegun{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    static inline bool m_isAtEnd = false; ///< Of the follower's thread.
};

TEST_F(LogShowTest, FollowingLosesNoLineAtRotationsAndEndsAtControlC)
{
    const CImportPatch patches[] = {
        {"SetConsoleCtrlHandler",
         +[](PHANDLER_ROUTINE handler, BOOL isAdded) {
             s_onControl = handler;
             return isAdded;
         }},
        {"WaitForMultipleObjects", +[](DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
             if (CFollowing::m_isAtEnd)
             {
                 EXPECT_FALSE(s_onControl(CTRL_CLOSE_EVENT));
                 EXPECT_TRUE(s_onControl(CTRL_C_EVENT));
             }
             return RealFunction<decltype(::WaitForMultipleObjects)>("WaitForMultipleObjects")(
                 count, handles, all, milliseconds);
         }}};
    ETWLogging::CLogFile log;
    log.SetPath(m_file);
    log.SetRotation(7, 99);
    CFollowing console;
    TxCtl::ExitCode exitCode{};
    std::thread follower([&] { exitCode = TxCtl::RunTool({L"log", L"show", m_file, L"--follow"}, console); });
    std::wstring expected;
    for (int i = 0; i < 400; ++i)
    {
        const std::wstring message = i == 399 ? L"last" : std::to_wstring(i);
        ETWLogging::CLogFile::COpened file;
        EXPECT_EQ(log.Open(true, file), DWORD{0});
        const ETWLogging::LogLineFields fields{.time = {2026, 11, 0, 24, 1, 0, 0, 0}};
        EXPECT_EQ(log.Write(file, BuildLogLine(fields, L"Normal", message.c_str())), DWORD{0});
        expected += L"2026-11-24T01:00:00  Normal       " + message + L"\n";
        EXPECT_EQ(::WaitForSingleObject(console.m_hasBegun.Get(), 60000), WAIT_OBJECT_0);
    }

    follower.join();
    EXPECT_EQ(exitCode, TxCtl::ExitCode::Success);
    EXPECT_TRUE(console.out == expected) << Narrow(console.out + console.error).substr(0, 1000);
}

TEST_F(LogShowTest, AnAgeIsCountedBackFromNowAndLocal)
{
    constexpr double kHour = 3600e7;
    const CImportPatch zone("SystemTimeToTzSpecificLocalTime", &LocalTimeAnHourLater);
    for (const auto& [age, hours] : {std::pair{L"90m", 1.5}, {L"2h", 2.0}, {L"3d", 72.0}})
    {
        FILETIME now{};
        ::GetSystemTimeAsFileTime(&now);
        const auto local =
            static_cast<double>(ULONGLONG{now.dwHighDateTime} << 32 | now.dwLowDateTime) + kHour;
        EXPECT_NEAR(static_cast<double>(TxCtl::ParseMoment(age)), local - hours * kHour, 60e7) << hours;
    }
}

} // namespace
