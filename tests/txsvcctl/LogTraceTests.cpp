#include "txsvcctl/LogTrace.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "CtlTest.h"
#include "logging/events/EventLogger.h"
#include "contract/EventRecord.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"

namespace
{

using Bytes = std::vector<BYTE>;

Bytes s_payload;

ULONG WINAPI CopyPayload(TRACEHANDLE, EVENT_TRACE_HEADER* header)
{
    s_payload.clear();
    for (const MOF_FIELD& field : reinterpret_cast<ETWLogging::MessageEvent*>(header)->fields)
    {
        const auto* const data = reinterpret_cast<const BYTE*>(field.DataPtr);
        s_payload.insert(s_payload.end(), data, data + field.Length);
    }
    return ERROR_SUCCESS;
}

/// The data of an event as it stands in a trace: what the real logger hands to TraceEvent.
Bytes PayloadOf(DWORD level, const wchar_t* text)
{
    const CImportPatch patches[] = {
        {"RegisterTraceGuidsW",
         +[](WMIDPREQUEST callback,
             void* context,
             const GUID*,
             ULONG,
             TRACE_GUID_REGISTRATION*,
             LPCWSTR,
             LPCWSTR,
             TRACEHANDLE*) {
             WNODE_HEADER node{};
             ULONG size = sizeof(node);
             return callback(WMI_ENABLE_EVENTS, context, &size, &node);
         }},
        {"GetTraceLoggerHandle", +[](void*) { return TRACEHANDLE{1}; }},
        {"GetTraceEnableLevel", +[](TRACEHANDLE) { return UCHAR{TRACE_LEVEL_VERBOSE}; }},
        {"GetTraceEnableFlags", +[](TRACEHANDLE) { return ULONG{0}; }},
        {"TraceEvent", &CopyPayload}};
    ETWLogging::CETWLogging logger(ETWLogging::ReadLogSettings());
    logger.InitializeEx(nullptr, L"PLATFORM", 0, nullptr, 0);
    logger.Start();
    logger.LogEx(level, L"C:\\src\\Source.cpp", L"CClass::Method", 12, text);
    return s_payload;
}

TEST(TraceMessage, IsReadBackFieldByFieldAndOnlyWhole)
{
    const Bytes whole = PayloadOf(ETWLogging::LogError, L"the text");

    const TxCtl::TraceMessage message =
        TxCtl::DecodeTraceMessage(whole.data(), whole.size()).value_or(TxCtl::TraceMessage{});

    EXPECT_EQ(message.level, ULONG{ETWLogging::LogError});
    EXPECT_EQ(message.file + message.function + message.group, L"C:\\src\\Source.cppCClass::MethodPLATFORM");
    EXPECT_EQ(message.line, 12U);
    EXPECT_EQ(message.processId, ::GetCurrentProcessId());
    EXPECT_EQ(message.threadId, ::GetCurrentThreadId());
    EXPECT_EQ(message.message, L"the text");
    for (std::size_t size = 0; size < whole.size(); ++size)
    {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(TxCtl::DecodeTraceMessage(cut.data(), size)) << size;
    }
    Bytes more = whole;
    more.push_back(0);
    EXPECT_FALSE(TxCtl::DecodeTraceMessage(more.data(), more.size()));
    const Bytes hostile(1000, 0xFF);
    EXPECT_FALSE(TxCtl::DecodeTraceMessage(hostile.data(), hostile.size()));
}

/// The system's side: what the file holds.
std::vector<EVENT_RECORD> s_records;
EVENT_TRACE_LOGFILEW s_opened{};

ULONG WINAPI PlayTrace(TRACEHANDLE*, ULONG, FILETIME*, FILETIME*)
{
    for (EVENT_RECORD& record : s_records)
    {
        record.UserContext = s_opened.Context;
        s_opened.EventRecordCallback(&record);
    }
    return ERROR_SUCCESS;
}

EVENT_RECORD Record(Bytes& data, const GUID& eventClass = ETWLogging::kMessageEventClass)
{
    EVENT_RECORD record{};
    record.EventHeader.Flags = EVENT_HEADER_FLAG_CLASSIC_HEADER;
    record.EventHeader.ProviderId = eventClass;
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

class LogTraceTest : public CtlTest
{
protected:
    ~LogTraceTest() override { s_records.clear(); }
};

TEST_F(LogTraceTest, PrintsTheHostsMessagesAndCountsTheRest)
{
    Bytes warning = PayloadOf(ETWLogging::LogWarning, L"low $");
    Bytes error = PayloadOf(ETWLogging::LogError, L"high\r\n");
    Bytes nameless = PayloadOf(9, L"odd");
    Bytes damaged(error.begin(), error.end() - 1);
    s_records = {Record(warning), Record(error), Record(nameless), Record(damaged), Record(error, GUID{})};
    const CImportPatch patches[] = {
        {"OpenTraceW",
         +[](EVENT_TRACE_LOGFILEW* trace) {
             EXPECT_EQ(trace->LogFileName, std::wstring(L"host.etl"));
             EXPECT_EQ(trace->ProcessTraceMode, ULONG{PROCESS_TRACE_MODE_EVENT_RECORD});
             s_opened = *trace;
             return TRACEHANDLE{7};
         }},
        {"ProcessTrace", &PlayTrace},
        {"CloseTrace", +[](TRACEHANDLE handle) { return handle == 7 ? ULONG{0} : ULONG{1}; }}};

    const CtlResult text = Run({L"log", L"trace", L"host.etl", L"--level", L"4"});
    const CtlResult json = Run({L"log", L"trace", L"host.etl", L"--json"});

    EXPECT_EQ(text.exitCode + json.exitCode, 0);
    EXPECT_EQ(text.error, L"Left out: 1 events of other providers, 1 that could not be read.\n");
    const std::size_t second = text.out.find(L'\n') + 1;
    EXPECT_NE(text.out.find(L"05 "), std::wstring::npos);
    EXPECT_NE(text.out.find(L"$ -- (Error)$ [       PLATFORM]$ [PID:"), std::wstring::npos);
    EXPECT_NE(
        text.out.find(
            L"]$ [          Source.cpp:   12]$ [                          CClass::Method()]$ high\n"),
        std::wstring::npos)
        << Narrow(text.out);
    EXPECT_NE(text.out.find(L"(9)$", second), std::wstring::npos);
    const nlohmann::json first = nlohmann::json::parse(Narrow(json.out.substr(0, json.out.find(L'\n'))));
    EXPECT_EQ(first["message"], "low $");
    EXPECT_EQ(first["levelName"], "Warning");
    EXPECT_EQ(first["time"].get<std::string>().substr(14), "30:05.007");
    EXPECT_EQ(first["source"], "C:\\src\\Source.cpp");
    EXPECT_EQ(Run({L"log", L"trace", L"host.etl", L"--since", L"2026-11-26"}).out, L"");
    EXPECT_NE(Run({L"log", L"trace", L"host.etl", L"--since", L"2026-11-23"}).out, L"");
    EXPECT_EQ(Run({L"log", L"trace", L"host.etl", L"--since", L"once"}).exitCode, 2);
}

TEST_F(LogTraceTest, ATraceThatCannotBeReadIsAnError)
{
    const CtlResult missing = Run({L"log", L"trace", L"C:\\missing.etl"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.error.find(L"cannot open trace 'C:\\missing.etl'"), std::wstring::npos);

    const CImportPatch open("OpenTraceW", +[](EVENT_TRACE_LOGFILEW*) { return TRACEHANDLE{7}; });
    const CImportPatch process(
        "ProcessTrace", +[](TRACEHANDLE*, ULONG, FILETIME*, FILETIME*) { return ULONG{ERROR_FILE_CORRUPT}; });
    EXPECT_NE(Run({L"log", L"trace", L"x.etl"}).error.find(L"error 1392"), std::wstring::npos);
    EXPECT_EQ(Run({L"log", L"trace"}).exitCode, 2);
}

} // namespace
