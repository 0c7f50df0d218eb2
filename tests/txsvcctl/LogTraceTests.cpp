#include "txsvcctl/LogTrace.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "CtlTest.h"
#include "logging/EventRecord.h"
#include "support/ImportPatch.h"
#include "txsvcctl/ToolError.h"

namespace
{

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

bool IsMessage(const std::string& data)
{
    return TxCtl::DecodeTraceMessage(reinterpret_cast<const BYTE*>(data.data()), data.size()).has_value();
}

TEST(TraceMessage, IsReadBackOnlyWhole)
{
    const std::string whole = Payload(4, L"text");
    EXPECT_TRUE(IsMessage(whole));
    EXPECT_FALSE(IsMessage(whole + '\0'));
    for (std::size_t size = 0; size < whole.size(); ++size)
    {
        EXPECT_FALSE(IsMessage(whole.substr(0, size))) << size;
    }
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
    const std::string error = Payload(4, L"high\r\n");
    const auto line = [](const wchar_t* level, const wchar_t* message) {
        return std::wstring(L"11/24/2026 01:30:05 PM$ -- (") + level +
               L")$ [       PLATFORM]$ [PID:  345 TID:  678]$ [          Source.cpp:   12]$ [" +
               std::wstring(26, L' ') + L"CClass::Method()]$ " + message + L"\n";
    };
    const std::wstring low = line(L"Warning", L"low $");
    const std::wstring high = line(L"Error", L"high") + line(L"9", L"odd");

    s_events = {{Payload(2, L"low $")}, {error}, {Payload(9, L"odd")}};
    EXPECT_EQ(Narrow(Trace().out), Narrow(low + high));
    EXPECT_EQ(Narrow(Trace({L"--level", L"4"}).out), Narrow(high));
    EXPECT_EQ(Narrow(Trace({L"--since", L"2026-11-24 13:30"}).out), Narrow(low + high));
    EXPECT_EQ(Narrow(Trace({L"--since", L"2026-11-24 13:31"}).out), "");
    EXPECT_EQ(
        Narrow(Trace({L"--level", L"9", L"--json"}).out),
        R"({"time":"2026-11-24T13:30:05.007","level":9,"levelName":"9","tag":"PLATFORM","process":345,"thread":678,)"
        R"("source":"C:\\src\\Source.cpp","line":12,"function":"CClass::Method","message":"odd"})"
        "\n");
    EXPECT_EQ(Narrow(Trace().error), "");

    s_events = {{error.substr(1)}};
    EXPECT_EQ(Narrow(Trace().error), "Left out: 0 events of other providers, 1 that could not be read.\n");
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
