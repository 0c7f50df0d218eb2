#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "CtlTest.h"
#include "base/Text.h"
#include "contract/EventRecord.h"
#include "contract/LogLevels.h"
#include "contract/LogLine.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/log/LogMoment.h"
#include "txsvcctl/log/LogReader.h"
#include "txsvcctl/log/LogSink.h"
#include "txsvcctl/log/TraceReader.h"

using ETWLogging::BuildLogLine;
using TxCtl::LogMoment;
using TxCtl::ToUtf8;

namespace
{

const std::string kHead = "11/24/2026 12:05:07 PM$ -- (Error)$ ";

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
        add(0, LR"({"version":1,"time":"2026-01-28T%02u:59:07","level":%u)", i % 24, i % 5 + 1);
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
    const std::string& in = kHead;
    const std::string out = "2026-11-24T12:05:07  Error        ";
    const std::string table[][2] = {
        {in + "a\r\n" + in + "torn", out + "a\n" + out + "torn\n"},
        {in + "a\r\n11/24/2026 12:05:07 PM$ -- (Err", out + "a\n"},
        {in + "[]$ a\n", out + "[]$ a\n"},
        {in + "[   t", out + "[   t\n"},
        {in + "[PID:    1 TID", out + "[PID:    1 TID\n"},
        {in + "[   s.cpp", out + "[   s.cpp\n"},
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

/// What is read on.
struct Messages final : TxCtl::ILogSink
{
    void Add(TxCtl::LogEntry entry) override { text += ToUtf8(entry.message) + ";"; }
    bool EndPiece() override { return wantsMore; }

    std::string text;
    bool wantsMore = true;
};

TEST_F(LogShowTest, ReadsEachLineOnceWhateverBecomesOfTheFile)
{
    Messages messages;
    TxCtl::CLogReader reader(m_file, 1, messages);
    const auto readOn = [&] {
        const bool isMore = reader.ReadOn(false);
        EXPECT_EQ(isMore, reader.HasFile() && messages.wantsMore);
        return std::exchange(messages.text, {});
    };
    const auto append = [this](const std::string& text) {
        std::ofstream(m_file.c_str(), std::ios::app | std::ios::binary) << text;
    };
    const auto rename = [this](const wchar_t* to) { std::filesystem::rename(m_file, m_folder.File(to)); };
    EXPECT_EQ(readOn(), "");
    append(kHead + "1\r\n");
    EXPECT_EQ(readOn(), "1;");
    EXPECT_EQ(readOn(), "");
    append(kHead + "2 to");
    EXPECT_EQ(readOn(), "");
    append("rn\r\nmore\r\n");
    EXPECT_EQ(readOn(), "2 torn\nmore;");
    const auto size = std::filesystem::file_size(m_file);
    append(kHead + "no room");
    EXPECT_EQ(readOn(), "");
    std::filesystem::resize_file(m_file, size); // As the logger does then.
    EXPECT_EQ(readOn(), "");
    append(kHead + "3\r\n");
    EXPECT_EQ(readOn(), "3;");
    std::filesystem::resize_file(m_file, 0);
    append(kHead + "4\r\n");
    EXPECT_EQ(readOn(), "4;");
    append(kHead + "5\r\n");
    rename(L"x.2.log"); // Two rotations.
    append(kHead + "6\r\n");
    rename(L"x.1.log");
    append(kHead + "7\r\n");
    EXPECT_EQ(readOn(), "5;6;7;");
    for (const wchar_t* const old : {L"x.1.log", L"x.2.log"})
    {
        std::filesystem::last_write_time(m_folder.File(old), std::filesystem::file_time_type::min());
    }
    rename(L"gone.log"); // What is numbered is older.
    append(kHead + "8\r\n");
    EXPECT_EQ(readOn(), "8;");
    append(kHead + "9\r\n" + kHead + "10\r\n");
    rename(L"x.1.log");
    append(kHead + "11\r\n");
    messages.wantsMore = false;
    EXPECT_EQ(readOn(), "9;");
}

PHANDLER_ROUTINE s_onControl;
std::filesystem::path s_followed;
int s_waits;

/// Each time that the tool waits there is another line, the fourth time Ctrl+C.
DWORD WINAPI WaitForMore(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds)
{
    std::ofstream(s_followed, std::ios::app) << kHead << ++s_waits << '\n';
    EXPECT_EQ(s_onControl(s_waits == 4 ? CTRL_C_EVENT : CTRL_CLOSE_EVENT), s_waits == 4 ? TRUE : FALSE);
    return s_waits > 4 ? WAIT_FAILED
                       : RealFunction<decltype(WaitForMore)>("WaitForMultipleObjects")(
                             count, handles, all, milliseconds);
}

TEST_F(LogShowTest, FollowingReadsOnUntilControlC)
{
    const CImportPatch patches[] = {
        {"SetConsoleCtrlHandler",
         +[](PHANDLER_ROUTINE handler, BOOL isAdded) {
             s_onControl = handler;
             return isAdded;
         }},
        {"WaitForMultipleObjects", &WaitForMore}};
    s_followed = m_file;
    const std::string line = "2026-11-24T12:05:07  Error        ";
    const CtlResult result = RunCtl({L"log", L"show", m_file, L"--follow"});
    EXPECT_EQ(Narrow(result.out), line + "1\n" + line + "2\n" + line + "3\n") << result;
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(LogShowTest, AnAgeIsCountedBackFromNowAndLocal)
{
    const CImportPatch zone("SystemTimeToTzSpecificLocalTime", &LocalTimeAnHourLater);
    const CImportPatch clock(
        "GetSystemTimeAsFileTime", +[](FILETIME* now) {
            const SYSTEMTIME time = {2026, 11, 0, 24, 12, 0, 0, 7};
            ::SystemTimeToFileTime(&time, now);
        });
    for (const auto& [age, date] :
         {std::pair{L"90m", L"2026-11-24 11:30"}, {L"2h", L"2026-11-24 11:00"}, {L"3d", L"2026-11-21 13:00"}})
    {
        const LogMoment ago = LogMoment::Parse(age);
        const LogMoment same = LogMoment::Parse(date);
        EXPECT_FALSE(ago < same || same < ago) << Narrow(age);
    }
}

/// The data of an event as it stands in a trace.
std::string Payload(ULONG level, const std::wstring& message)
{
    const auto number = [](ULONG value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    const auto text = [](const std::wstring& value) {
        return std::string(reinterpret_cast<const char*>(value.c_str()), 2 * value.size() + 2);
    };
    return number(level) + text(L"C:\\src\\Source.cpp") + text(L"CClass::Method") + number(12) +
           text(L"PLATFORM") + number(345) + number(678) + text(message);
}

/// The system's side: what the file holds, and what comes of reading it.
struct Event
{
    std::string data;
    GUID provider = ETWLogging::kMessageEventClass;
    UCHAR type = ETWLogging::kMessageEventType;
    UCHAR version = ETWLogging::kMessageEventVersion;
};
std::vector<Event> s_events;
EVENT_TRACE_LOGFILEW s_opened{};
ULONG s_status;
int s_open;

TRACEHANDLE WINAPI OpenIt(EVENT_TRACE_LOGFILEW* trace)
{
    EXPECT_EQ(trace->ProcessTraceMode, ULONG{PROCESS_TRACE_MODE_EVENT_RECORD});
    s_opened = *trace;
    const bool isThere = trace->LogFileName == std::wstring(L"host.etl");
    s_open += isThere;
    ::SetLastError(ERROR_PATH_NOT_FOUND);
    return isThere ? 7 : INVALID_PROCESSTRACE_HANDLE;
}

ULONG WINAPI PlayIt(TRACEHANDLE* handle, ULONG count, FILETIME*, FILETIME*)
{
    EXPECT_EQ(*handle, count * 7);
    const SYSTEMTIME noon = {2026, 11, 0, 24, 12, 30, 5, 7};
    for (Event& event : s_events)
    {
        EVENT_RECORD record{};
        record.EventHeader.ProviderId = event.provider;
        record.EventHeader.EventDescriptor.Opcode = event.type;
        record.EventHeader.EventDescriptor.Version = event.version;
        ::SystemTimeToFileTime(&noon, reinterpret_cast<FILETIME*>(&record.EventHeader.TimeStamp));
        record.UserData = event.data.data();
        record.UserDataLength = static_cast<USHORT>(event.data.size());
        record.UserContext = s_opened.Context;
        s_opened.EventRecordCallback(&record);
    }
    return s_status;
}

ULONG WINAPI CloseIt(TRACEHANDLE handle)
{
    s_open -= handle == 7;
    return 0;
}

CtlResult Trace(std::vector<std::wstring> options = {}, const wchar_t* file = L"host.etl")
{
    options.insert(options.begin(), {L"log", L"trace", file});
    const CtlResult result = RunCtl(options);
    EXPECT_EQ(s_open, 0);
    return result;
}

TEST(LogTrace, PrintsTheHostsMessagesInLocalTimeAndCountsTheRest)
{
    const CImportPatch patches[] = {
        {"OpenTraceW", &OpenIt},
        {"ProcessTrace", &PlayIt},
        {"CloseTrace", &CloseIt},
        {"SystemTimeToTzSpecificLocalTime", &LocalTimeAnHourLater}};
    const std::string error = Payload(4, L"high\r\nmore\r\n");
    const auto line = [](const wchar_t* level, const wchar_t* message) {
        return Basalt::FormatText(
            L"2026-11-24T13:30:05.007  %-13s345/678      %-28s%-42s%s\n",
            level,
            L"C:\\src\\Source.cpp:12",
            L"CClass::Method",
            message);
    };
    const std::wstring low = line(L"Warning", L"low $");
    const std::wstring high = line(L"Error", L"high\n    more") + line(L"9", L"odd");

    s_events = {{Payload(2, L"low $")}, {error}, {Payload(9, L"odd")}};
    EXPECT_EQ(Narrow(Trace().out), Narrow(low + high));
    EXPECT_EQ(Narrow(Trace({L"--level", L"4"}).out), Narrow(high));
    EXPECT_EQ(Narrow(Trace({L"--since", L"2026-11-24 13:30"}).out), Narrow(low + high));
    EXPECT_EQ(Narrow(Trace({L"--since", L"2026-11-24 13:31"}).out), "");
    EXPECT_EQ(
        Narrow(Trace({L"--level", L"5", L"--json"}).out),
        R"({"version":1,"time":"2026-11-24T13:30:05.007","level":9,"levelName":"9","tag":"PLATFORM","process":345,)"
        R"("thread":678,"source":"C:\\src\\Source.cpp","line":12,"function":"CClass::Method","message":"odd"})"
        "\n");
    EXPECT_EQ(Narrow(Trace().error), "");

    s_events = {{error + '\0'}};
    for (std::size_t size = 0; size < error.size(); ++size)
    {
        s_events.push_back({error.substr(0, size)}); // Ends too early everywhere.
    }
    EXPECT_EQ(
        Narrow(Trace().out + Trace().error),
        "Left out: 0 events of other providers, " + std::to_string(s_events.size()) +
            " that could not be read.\n");
    constexpr GUID kSystem = {0x68FDD900, 0x4A3E, 0x11D1, {0x84, 0xF4, 0x00, 0x00, 0xF8, 0x04, 0x64, 0xE3}};
    s_events = {{error, GUID{}}, {error, kSystem}, {.data = error, .type = 2}, {.data = error, .version = 0}};
    EXPECT_EQ(Narrow(Trace().error), "Left out: 3 events of other providers, 0 that could not be read.\n");
    EXPECT_EQ(Narrow(Trace().out), "");

    s_status = ERROR_FILE_CORRUPT;
    EXPECT_EQ(Trace().error.find(L"txsvcctl: cannot read trace 'host.etl': error 1392: "), 0U);
    EXPECT_EQ(Trace({}, L"none.etl").error.find(L"txsvcctl: cannot open trace 'none.etl': error 3: "), 0U);

    struct CFull final : CtlResult
    {
        void Out(const std::wstring& /*text*/) override { throw std::runtime_error("full"); }
    } full;
    s_events = {{error}, {error}};
    EXPECT_EQ(TxCtl::RunTool({L"log", L"trace", L"host.etl"}, full), TxCtl::ExitCode::Failed);
    EXPECT_EQ(Narrow(full.error), "txsvcctl: full\n");
}

} // namespace
