#include <windows.h>
#include <evntrace.h>
#include <objbase.h>

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
#include "base/Owned.h"
#include "contract/EventRecord.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

extern "C"
{
    TxSdk::LogControllerStart Start;
    TxSdk::LogControllerStop Stop;
    TxSdk::LogControllerRestartSession RestartSession;
    TxSdk::LogControllerFlushBuffers FlushBuffers;
}

namespace
{

/// What was asked of the system's sessions, and what they answer.
std::string s_calls;
ULONG s_startStatus, s_enableStatus, s_queryStatus;

ULONG WINAPI FakeStart(TRACEHANDLE* session, LPCWSTR name, EVENT_TRACE_PROPERTIES* properties)
{
    const auto* const bytes = reinterpret_cast<const BYTE*>(properties);
    const std::filesystem::path file(reinterpret_cast<LPCWSTR>(bytes + properties->LogFileNameOffset));
    std::ofstream(file) << "a trace"; // What the next one finds.
    s_calls += "start " + Narrow(name) + " " + file.filename().string() + " " +
               std::to_string(properties->MaximumFileSize) + " MB " +
               std::to_string(properties->LogFileMode) + "; ";
    EXPECT_EQ(properties->Wnode.Flags, ULONG{WNODE_FLAG_TRACED_GUID});
    return *session = 7, s_startStatus;
}

ULONG WINAPI FakeControl(TRACEHANDLE, LPCWSTR name, EVENT_TRACE_PROPERTIES*, ULONG code)
{
    const bool isQuery = code == EVENT_TRACE_CONTROL_QUERY;
    s_calls += isQuery ? "" : (code == EVENT_TRACE_CONTROL_STOP ? "stop " : "flush ") + Narrow(name) + "; ";
    return isQuery ? s_queryStatus : ERROR_SUCCESS;
}

ULONG WINAPI FakeEnable(ULONG enable, ULONG flags, ULONG level, LPCGUID provider, TRACEHANDLE session)
{
    const bool isRight = *provider == ETWLogging::kEventProvider && enable == 1 && session == 7;
    s_calls += isRight && flags + level == 0 ? "enable; " : "enable?; ";
    return s_enableStatus;
}

const std::string kStopped = "stop Tarvex.Log.A; ";
const std::string kBegun = kStopped + "start Tarvex.Log.A A.etl 16 MB 2; enable; ";

struct LogControllerSampleTest : ::testing::Test
{
    LogControllerSampleTest()
    {
        s_startStatus = s_enableStatus = s_queryStatus = ERROR_SUCCESS;
        s_calls.clear();
    }
    static std::string Taken() { return std::exchange(s_calls, {}); }

    const CImportPatch m_patches[3] = {
        {"StartTraceW", &FakeStart}, {"ControlTraceW", &FakeControl}, {"EnableTrace", &FakeEnable}};
    CTestFolder m_folder;
};

TEST_F(LogControllerSampleTest, TheFirstUserStartsTheSessionAndTheLastOneStopsIt)
{
    CTraceSession first(m_folder.File(L"a\\b"), L"A"), second(m_folder.File(L"a\\b"), L"A"),
        third(m_folder.File(L"a\\b"), L"A");
    EXPECT_EQ(first.Flush(), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(first.Start() + first.Start(), 0U);
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_EQ(second.Start(), 0U);
    EXPECT_EQ(Taken(), "") << "it joins";
    s_queryStatus = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(third.Start() + third.Stop(), 0U);
    EXPECT_EQ(Taken(), kBegun) << "somebody had stopped it";
    EXPECT_EQ(first.Restart(), 0U);
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_TRUE(std::filesystem::exists(m_folder.File(L"a\\b\\A.old.etl")));
    EXPECT_EQ(second.Flush() + first.Stop(), 0U);
    EXPECT_EQ(Taken(), "flush Tarvex.Log.A; ") << "the other goes on";
    EXPECT_EQ(second.Stop() + second.Stop(), 0U);
    EXPECT_EQ(Taken(), kStopped);
    EXPECT_EQ(CTraceSession(m_folder.Path(), L"A").Start(), 0U); // Crashes.
    EXPECT_EQ(CTraceSession(m_folder.Path(), L"A").Start(), 0U);
    EXPECT_EQ(Taken(), kBegun + kBegun) << "what was left behind is replaced";
}

DWORD WINAPI OwnedByNobody(HANDLE, SE_OBJECT_TYPE, DWORD, PSID* owner)
{
    return *owner = nullptr, ERROR_SUCCESS;
}

TEST_F(LogControllerSampleTest, FailuresAreReturnedAndLeaveNoSession)
{
    CTraceSession session(m_folder.Path(), L"A");
    s_startStatus = ERROR_ACCESS_DENIED;
    EXPECT_EQ(session.Start(), DWORD{ERROR_ACCESS_DENIED});
    s_startStatus = ERROR_SUCCESS;
    s_enableStatus = ERROR_NO_SYSTEM_RESOURCES;
    Taken();
    EXPECT_EQ(session.Start(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_EQ(Taken(), kBegun + kStopped);
    EXPECT_NE(CTraceSession(m_folder.File(L"A.etl\\below"), L"A").Start(), 0U) << "no folder";
    s_enableStatus = ERROR_SUCCESS;
    const CDataFolder folder;
    for (const wchar_t* const name : {static_cast<const wchar_t*>(nullptr), L"", L"a\\b", L"a:b"})
    {
        EXPECT_EQ(Start(name), DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(Stop(0, L"A") + Start(L"A") + FlushBuffers(L"A") + RestartSession(L"A") + Stop(0, L"A"), 0U);
    EXPECT_EQ(FlushBuffers(L"B"), DWORD{ERROR_INVALID_STATE});
    const CImportPatch patch("GetSecurityInfo", &OwnedByNobody);
    const Basalt::CHandle mutex(TxSdk::OpenLogMutex(L"Global\\Tarvex.Log.A"));
    EXPECT_EQ(session.Start() + session.Stop(), 0U) << "though another user has made the mutex";
    EXPECT_EQ(Start(L"A"), DWORD{ERROR_INVALID_OWNER}) << "whose folder is it?";
}

std::string TextOf(const GUID& guid)
{
    wchar_t text[64] = {};
    ::StringFromGUID2(guid, text, 64);
    return Narrow(text);
}

TEST(EventDescription, NamesTheProviderTheClassAndTheFieldsAsTheyAre)
{
    std::ifstream file(TX_SDK_FOLDER "/TxSvHostEvents.mof");
    const std::string mof(std::istreambuf_iterator<char>(file), {});
    for (const std::string& part :
         {"Guid(\"" + TextOf(ETWLogging::kEventProvider) + "\")",
          "Guid(\"" + TextOf(ETWLogging::kMessageEventClass) + "\"), EventVersion(" +
              std::to_string(ETWLogging::kMessageEventVersion) + ")",
          "EventType(" + std::to_string(ETWLogging::kMessageEventType) + ")"})
    {
        EXPECT_NE(mof.find(part), std::string::npos) << part;
    }
    std::string types; // In the order of EventField.
    const std::regex field(R"(WmiDataId\((\d)\)[^\]]*\]\s*(uint32|string) )");
    for (std::sregex_iterator at(mof.begin(), mof.end(), field), end; at != end; ++at)
    {
        types += (*at)[1].str() + (*at)[2].str() + " ";
    }
    EXPECT_EQ(types, "1uint32 2string 3string 4uint32 5string 6uint32 7uint32 8string ");
}

} // namespace
