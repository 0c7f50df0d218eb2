#include <windows.h>
#include <evntrace.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <string>
#include <utility>

#include "TraceSession.h"
#include "TxLogController.h"
#include "TxLogSecurity.h"
#include "contract/EventRecord.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

extern "C"
{
    TxSdk::LogControllerStart Start;
    TxSdk::LogControllerStop Stop;
    TxSdk::LogControllerFlushBuffers FlushBuffers;
}

namespace
{

std::string s_calls; ///< What was asked of the system's sessions.
ULONG s_enableStatus, s_queryStatus;

ULONG WINAPI FakeStart(TRACEHANDLE* session, LPCWSTR name, EVENT_TRACE_PROPERTIES* properties)
{
    const auto* const bytes = reinterpret_cast<const BYTE*>(properties);
    const std::filesystem::path file(reinterpret_cast<LPCWSTR>(bytes + properties->LogFileNameOffset));
    std::ofstream(file) << "a trace"; // What the next one finds.
    s_calls += "start " + Narrow(name) + " " + file.filename().string() + "; ";
    return *session = 7, ERROR_SUCCESS;
}

ULONG WINAPI FakeControl(TRACEHANDLE, LPCWSTR name, EVENT_TRACE_PROPERTIES*, ULONG code)
{
    const bool isQuery = code == EVENT_TRACE_CONTROL_QUERY;
    s_calls += isQuery ? "" : (code == EVENT_TRACE_CONTROL_STOP ? "stop " : "flush ") + Narrow(name) + "; ";
    return isQuery ? s_queryStatus : ERROR_SUCCESS;
}

ULONG WINAPI FakeEnable(ULONG enable, ULONG, ULONG, LPCGUID provider, TRACEHANDLE session)
{
    const bool isRight = *provider == ETWLogging::kEventProvider && enable == 1 && session == 7;
    s_calls += isRight ? "enable; " : "enable?; ";
    return s_enableStatus;
}

TEST(LogControllerSample, TheFirstUserStartsTheSessionAndTheLastOneStopsIt)
{
    const CImportPatch patches[] = {
        {"StartTraceW", &FakeStart}, {"ControlTraceW", &FakeControl}, {"EnableTrace", &FakeEnable}};
    const CDataFolder folder;
    const std::wstring below = TxSdk::DefaultLogFolder();
    const std::string stopped = "stop Tarvex.Log.A; ", begun = stopped + "start Tarvex.Log.A A.etl; enable; ";
    const auto taken = [] { return std::exchange(s_calls, {}); };
    CTraceSession first(below, L"A"), third(below, L"A");
    s_enableStatus = ERROR_NO_SYSTEM_RESOURCES;
    EXPECT_EQ(first.Start(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_EQ(taken(), begun + stopped) << "a failure leaves no session";
    s_enableStatus = ERROR_SUCCESS;
    EXPECT_EQ(first.Start() + first.Start() + Start(L"A"), 0U);
    EXPECT_EQ(taken(), begun) << "the others join";
    s_queryStatus = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(third.Start() + third.Stop(), 0U);
    EXPECT_EQ(taken(), begun) << "somebody had stopped it";
    EXPECT_EQ(first.Restart(), 0U);
    EXPECT_EQ(taken(), begun);
    EXPECT_TRUE(std::filesystem::exists(below + L"\\A.old.etl"));
    EXPECT_EQ(FlushBuffers(L"A") + first.Stop(), 0U);
    EXPECT_EQ(taken(), "flush Tarvex.Log.A; ") << "the other goes on";
    EXPECT_EQ(Stop(0, L"A") + Stop(0, L"A"), 0U);
    EXPECT_EQ(taken(), stopped);
    EXPECT_EQ(Start(L"a\\b"), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(FlushBuffers(L"B"), DWORD{ERROR_INVALID_STATE});
}

TEST(EventDescription, HasTheFieldsInTheirOrder)
{
    std::ifstream file(TX_SDK_FOLDER "/TxSvHostEvents.mof");
    const std::string mof(std::istreambuf_iterator<char>(file), {});
    std::string types;
    const std::regex field(R"(WmiDataId\((\d)\)[^\]]*\]\s*(uint32|string) )");
    for (std::sregex_iterator at(mof.begin(), mof.end(), field), end; at != end; ++at)
    {
        types += (*at)[1].str() + (*at)[2].str() + " ";
    }
    EXPECT_EQ(types, "1uint32 2string 3string 4uint32 5string 6uint32 7uint32 8string ");
}

} // namespace
