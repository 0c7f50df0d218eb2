#include "txsvcctl/LogTrace.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

#include "CtlTest.h"
#include "logging/EventRecord.h"
#include "support/ImportPatch.h"
#include "txsvcctl/ToolError.h"

namespace
{

using Bytes = std::vector<BYTE>;

/// The data of an event as it stands in a trace.
Bytes Payload(ULONG level, const std::wstring& message)
{
    Bytes data;
    const auto add = [&data](const void* field, std::size_t size) {
        const auto* const bytes = static_cast<const BYTE*>(field);
        data.insert(data.end(), bytes, bytes + size);
    };
    const auto number = [&add](ULONG value) { add(&value, sizeof(value)); };
    const auto text = [&add](const std::wstring& value) { add(value.c_str(), (value.size() + 1) * 2); };
    number(level);
    text(L"C:\\src\\Source.cpp");
    text(L"CClass::Method");
    number(12);
    text(L"PLATFORM");
    number(345);
    number(678);
    text(message);
    return data;
}

TEST(TraceMessage, IsReadBackOnlyWhole)
{
    const Bytes whole = Payload(4, L"text");
    EXPECT_TRUE(TxCtl::DecodeTraceMessage(whole.data(), whole.size()));
    for (std::size_t size = 0; size < whole.size(); ++size)
    {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(TxCtl::DecodeTraceMessage(cut.data(), size)) << size;
    }
    Bytes more = whole;
    more.push_back(0);
    EXPECT_FALSE(TxCtl::DecodeTraceMessage(more.data(), more.size()));
}

/// The system's side: what the file holds, and what comes of reading it.
std::vector<EVENT_RECORD> s_records;
EVENT_TRACE_LOGFILEW s_opened{};
ULONG s_status;
int s_open;

TRACEHANDLE WINAPI OpenTrace(EVENT_TRACE_LOGFILEW* trace)
{
    EXPECT_EQ(trace->ProcessTraceMode, ULONG{PROCESS_TRACE_MODE_EVENT_RECORD});
    s_opened = *trace;
    const bool isThere = trace->LogFileName == std::wstring(L"host.etl");
    s_open += isThere;
    ::SetLastError(ERROR_PATH_NOT_FOUND);
    return isThere ? 7 : INVALID_PROCESSTRACE_HANDLE;
}

ULONG WINAPI PlayTrace(TRACEHANDLE* handle, ULONG count, FILETIME*, FILETIME*)
{
    EXPECT_EQ(*handle, count * 7);
    for (EVENT_RECORD& record : s_records)
    {
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

EVENT_RECORD Record(Bytes& data)
{
    EVENT_RECORD record{};
    record.EventHeader.ProviderId = ETWLogging::kMessageEventClass;
    record.EventHeader.EventDescriptor.Opcode = ETWLogging::kMessageEventType;
    record.EventHeader.EventDescriptor.Version = ETWLogging::kMessageEventVersion;
    const SYSTEMTIME noon = {2026, 11, 0, 24, 12, 30, 5, 7};
    FILETIME time{};
    ::SystemTimeToFileTime(&noon, &time);
    record.EventHeader.TimeStamp.LowPart = time.dwLowDateTime;
    record.EventHeader.TimeStamp.HighPart = static_cast<LONG>(time.dwHighDateTime);
    record.UserData = data.data();
    record.UserDataLength = static_cast<USHORT>(data.size());
    return record;
}

TEST(LogTrace, PrintsTheHostsMessagesInLocalTimeAndCountsTheRest)
{
    const CImportPatch patches[] = {
        {"OpenTraceW", &OpenTrace},
        {"ProcessTrace", &PlayTrace},
        {"CloseTrace", &CloseIt},
        {"SystemTimeToTzSpecificLocalTime", &LocalTimeAnHourLater}};
    Bytes warning = Payload(2, L"low $");
    Bytes error = Payload(4, L"high\r\n");
    Bytes nameless = Payload(9, L"odd");
    Bytes damaged(error.begin(), error.end() - 1);
    s_records = {Record(warning), Record(error), Record(nameless)};
    const std::wstring fields = L"$ [       PLATFORM]$ [PID:  345 TID:  678]$ [          Source.cpp:   12]$ "
                                L"[                          CClass::Method()]$ ";
    const std::wstring time = L"11/24/2026 01:30:05 PM$ -- (";
    const std::wstring low = time + L"Warning)" + fields + L"low $\n";
    const std::wstring high = time + L"Error)" + fields + L"high\n" + time + L"9)" + fields + L"odd\n";
    const auto json = [](const wchar_t* level, const wchar_t* message) {
        return std::wstring(LR"({"time":"2026-11-24T13:30:05.007","level":)") + level +
               LR"(,"tag":"PLATFORM","process":345,"thread":678,"source":"C:\\src\\Source.cpp","line":12,)" +
               LR"("function":"CClass::Method","message":")" + message + L"\"}\n";
    };
    const struct
    {
        std::vector<std::wstring> options;
        std::wstring out;
    } table[] = {
        {{}, low + high},
        {{L"--level", L"4"}, high},
        {{L"--since", L"2026-11-24 13:30"}, low + high},
        {{L"--since", L"2026-11-24 13:31"}, L""},
        {{L"--json"},
         json(LR"(2,"levelName":"Warning")", L"low $") + json(LR"(4,"levelName":"Error")", LR"(high\r\n)") +
             json(LR"(9,"levelName":"9")", L"odd")},
    };
    for (const auto& row : table)
    {
        std::vector<std::wstring> arguments = {L"log", L"trace", L"host.etl"};
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());
        const CtlResult result = RunCtl(arguments);
        EXPECT_EQ(Narrow(result.out), Narrow(row.out));
        EXPECT_EQ(Narrow(result.error), "");
        EXPECT_EQ(result.exitCode + s_open, 0);
    }

    s_records = {Record(damaged)};
    EXPECT_EQ(
        Narrow(RunCtl({L"log", L"trace", L"host.etl"}).error),
        "Left out: 0 events of other providers, 1 that could not be read.\n");
    s_records = {Record(error), Record(error), Record(error), Record(error)};
    s_records[0].EventHeader.ProviderId = {};
    s_records[1].EventHeader.EventDescriptor.Opcode = 2;
    s_records[2].EventHeader.EventDescriptor.Version = 0;
    s_records[3].EventHeader.ProviderId = {// The system's own about the session is nothing left out.
                                           0x68FDD900,
                                           0x4A3E,
                                           0x11D1,
                                           {0x84, 0xF4, 0x00, 0x00, 0xF8, 0x04, 0x64, 0xE3}};
    CtlResult result = RunCtl({L"log", L"trace", L"host.etl"});
    EXPECT_EQ(
        Narrow(result.out + result.error),
        "Left out: 3 events of other providers, 0 that could not be read.\n");

    struct CFull : CtlResult
    {
        void Out(const std::wstring& /*text*/) override { throw std::runtime_error("full"); }
    } full;
    s_records = {Record(error), Record(error)};
    EXPECT_EQ(TxCtl::RunTool({L"log", L"trace", L"host.etl"}, full), TxCtl::ExitCode::Failed);
    EXPECT_EQ(Narrow(full.error), "txsvcctl: full\n");

    s_status = ERROR_FILE_CORRUPT;
    result = RunCtl({L"log", L"trace", L"host.etl"});
    EXPECT_EQ(result.error.find(L"txsvcctl: cannot read trace 'host.etl': error 1392: "), 0U) << result;
    EXPECT_EQ(result.exitCode + s_open, 1);
    result = RunCtl({L"log", L"trace", L"none.etl"});
    EXPECT_EQ(result.error.find(L"txsvcctl: cannot open trace 'none.etl': error 3: "), 0U) << result;
}

} // namespace
