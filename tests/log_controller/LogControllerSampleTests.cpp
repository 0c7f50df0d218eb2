#include <windows.h>
#include <evntrace.h>
#include <objbase.h>

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "TraceSession.h"
#include "TxLogController.h"
#include "TxLogSecurity.h"
#include "base/Owned.h"
#include "base/Text.h"
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

/// The system's side of the sessions, and what was asked of it.
std::vector<std::wstring> s_calls;
ULONG s_startStatus = ERROR_SUCCESS;
ULONG s_enableStatus = ERROR_SUCCESS;
ULONG s_queryStatus = ERROR_SUCCESS;

ULONG WINAPI FakeStart(TRACEHANDLE* session, LPCWSTR name, EVENT_TRACE_PROPERTIES* properties)
{
    const auto* const bytes = reinterpret_cast<const BYTE*>(properties);
    const std::wstring file(reinterpret_cast<LPCWSTR>(bytes + properties->LogFileNameOffset));
    s_calls.push_back(std::wstring(L"start ") + name + L" " + file.substr(file.rfind(L'\\') + 1));
    EXPECT_EQ(properties->Wnode.Flags, ULONG{WNODE_FLAG_TRACED_GUID});
    EXPECT_EQ(properties->MaximumFileSize, CTraceSession::kFileMegabytes);
    EXPECT_EQ(properties->LogFileMode, ULONG{EVENT_TRACE_FILE_MODE_CIRCULAR});
    std::ofstream(file.c_str()) << "a trace"; // What the next one finds.
    *session = 7;
    return s_startStatus;
}

ULONG WINAPI FakeControl(TRACEHANDLE, LPCWSTR name, EVENT_TRACE_PROPERTIES*, ULONG code)
{
    if (code == EVENT_TRACE_CONTROL_QUERY)
    {
        return s_queryStatus;
    }
    s_calls.push_back((code == EVENT_TRACE_CONTROL_STOP ? L"stop " : L"flush ") + std::wstring(name));
    return ERROR_SUCCESS;
}

ULONG WINAPI FakeEnable(ULONG enable, ULONG flags, ULONG level, LPCGUID provider, TRACEHANDLE session)
{
    EXPECT_EQ(enable, ULONG{TRUE});
    EXPECT_EQ(*provider, ETWLogging::kEventProvider);
    s_calls.push_back(Basalt::FormatText(L"enable %u %u %u", static_cast<DWORD>(session), flags, level));
    return s_enableStatus;
}

/// Nothing belongs to anybody.
DWORD WINAPI FakeSecurity(HANDLE, SE_OBJECT_TYPE, DWORD, PSID*, PSID*, PACL*, PACL*, PSECURITY_DESCRIPTOR*)
{
    return ERROR_SUCCESS;
}

using Calls = std::vector<std::wstring>;

struct LogControllerSampleTest : ::testing::Test
{
    LogControllerSampleTest()
    {
        s_startStatus = s_enableStatus = s_queryStatus = ERROR_SUCCESS;
        s_calls.clear();
    }

    /// The calls since the last time.
    static Calls Taken() { return std::exchange(s_calls, {}); }

    const CImportPatch m_patches[3] = {
        {"StartTraceW", &FakeStart}, {"ControlTraceW", &FakeControl}, {"EnableTrace", &FakeEnable}};
    CTestFolder m_folder;
};

const Calls kBegun = {L"stop Tarvex.Log.A", L"start Tarvex.Log.A A.etl", L"enable 7 0 0"};
const Calls kStopped = {L"stop Tarvex.Log.A"};

TEST_F(LogControllerSampleTest, TheFirstUserStartsTheSessionAndTheLastOneStopsIt)
{
    CTraceSession first(m_folder.File(L"a\\b"), L"A");
    CTraceSession second(m_folder.File(L"a\\b"), L"A"); // As in another process.

    EXPECT_EQ(first.Flush(), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(first.Start(), 0U);
    EXPECT_EQ(first.Start(), 0U);
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_EQ(second.Start(), 0U);
    EXPECT_EQ(Taken(), Calls{}) << "it joins";
    s_queryStatus = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(CTraceSession(m_folder.File(L"a\\b"), L"A").Start(), 0U);
    EXPECT_EQ(Taken(), kBegun) << "somebody had stopped it";
    EXPECT_EQ(first.Restart(), 0U);
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_NE(::GetFileAttributesW(m_folder.File(L"a\\b\\A.old.etl").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(second.Flush(), 0U);
    EXPECT_EQ(Taken(), Calls{L"flush Tarvex.Log.A"});
    EXPECT_EQ(first.Stop(), 0U);
    EXPECT_EQ(Taken(), Calls{}) << "the other goes on";
    EXPECT_EQ(second.Stop(), 0U);
    EXPECT_EQ(second.Stop(), 0U);
    EXPECT_EQ(Taken(), kStopped);
    {
        CTraceSession crashed(m_folder.Path(), L"A");
        EXPECT_EQ(crashed.Start(), 0U);
    }
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_EQ(CTraceSession(m_folder.Path(), L"A").Start(), 0U);
    EXPECT_EQ(Taken(), kBegun) << "what was left behind is replaced";
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
    EXPECT_EQ(Taken().back(), kStopped[0]);
    s_enableStatus = ERROR_SUCCESS;
    const CImportPatch patch("GetSecurityInfo", &FakeSecurity);
    const Basalt::CHandle mutex(TxSdk::OpenLogMutex(L"Global\\Tarvex.Log.A"));
    EXPECT_EQ(session.Start(), 0U) << "though another user has made the mutex";
    EXPECT_EQ(session.Stop(), 0U);
    EXPECT_NE(CTraceSession(m_folder.File(L"A.etl\\below"), L"A").Start(), 0U) << "no folder";
}

TEST_F(LogControllerSampleTest, TheEntryPointsKeepOneSessionForEachName)
{
    const CDataFolder folder;
    for (const wchar_t* const name : {static_cast<const wchar_t*>(nullptr), L"", L"a\\b", L"a:b"})
    {
        EXPECT_EQ(Start(name), DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(Stop(0, L"A"), 0U) << "also when it was never started";
    EXPECT_EQ(Start(L"A"), 0U);
    EXPECT_EQ(Taken(), kBegun);
    EXPECT_EQ(FlushBuffers(L"B"), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(FlushBuffers(L"A") + RestartSession(L"A") + Stop(0, L"A"), 0U);
    const CImportPatch patch("GetSecurityInfo", &FakeSecurity);
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
    ASSERT_FALSE(mof.empty());
    EXPECT_NE(mof.find("Guid(\"" + TextOf(ETWLogging::kEventProvider) + "\")"), std::string::npos);
    const std::string version = "EventVersion(" + std::to_string(ETWLogging::kMessageEventVersion) + ")";
    EXPECT_NE(
        mof.find("Guid(\"" + TextOf(ETWLogging::kMessageEventClass) + "\"), " + version), std::string::npos);
    EXPECT_NE(
        mof.find("EventType(" + std::to_string(ETWLogging::kMessageEventType) + ")"), std::string::npos);
    using ETWLogging::EventField;
    std::string expected(ETWLogging::kEventFieldCount, 's');
    for (const EventField number :
         {EventField::Level, EventField::Line, EventField::ProcessId, EventField::ThreadId})
    {
        expected[static_cast<std::size_t>(number)] = 'u';
    }
    std::string types;
    const std::regex field(R"(WmiDataId\((\d)\)[^\]]*\]\s*(uint32|string) )");
    for (std::sregex_iterator at(mof.begin(), mof.end(), field), end; at != end; ++at)
    {
        EXPECT_EQ(std::stoul((*at)[1].str()), types.size() + 1);
        types += (*at)[2].str().front();
    }
    EXPECT_EQ(types, expected);
}

} // namespace
