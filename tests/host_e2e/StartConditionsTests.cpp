#include <windows.h>

#include <gtest/gtest.h>
#include <string>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/WorkingSetEvent.h"
#include "proxy/FirstRunGate.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"
#include "support/TestKey.h"

namespace
{

TestSubsystem Hosted(const std::wstring& service)
{
    return {service, TestClsidText(TestBehaviour::WellBehaved), BesideTest(kTestModule)};
}

std::wstring OobeClassKey()
{
    wchar_t clsid[40] = {};
    ::StringFromGUID2(CLSID_OobeConfiguration, clsid, 40);
    return std::wstring(L"CLSID\\") + clsid + L"\\InprocServer32";
}

TEST(StartConditions, ServicesWaitForFirstRunSetUpUnlessTheyAreExcluded)
{
    CTestKey state(HKEY_LOCAL_MACHINE, kTestRecordKey);
    CTestKey server(HKEY_CLASSES_ROOT, OobeClassKey());
    ASSERT_EQ(server.Key().WriteString(L"", BesideTest(L"..\\doubles\\FirstRun.dll")), DWORD{0});
    ASSERT_EQ(server.Key().WriteString(L"ThreadingModel", L"Both"), DWORD{0});
    CTestGroup group(
        L"TxE2eFirstRun",
        {Hosted(L"TxE2eHeld"), Hosted(L"TxE2eExcluded"), Hosted(L"TxOobeSv2"), Hosted(L"TxE2eKeeper")});
    group.SetRootValue(L"IsOobeCheckRequired", 1);
    Basalt::CRegKey exclusions;
    ASSERT_EQ(exclusions.Create(group.Key().Get(), L"OobeExclusionList", KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(exclusions.WriteDword(L"txE2eEXCLUDED", 1), DWORD{0});
    ASSERT_EQ(state.Key().WriteDword(L"OobeState", 65534), DWORD{0});
    CGroupRunner host(group.CommandLine());

    host.StartAndWait(L"TxOobeSv2");
    host.StartAndWait(L"TxE2eExcluded");
    ASSERT_EQ(host.Start(L"TxE2eHeld"), DWORD{0});
    EXPECT_TRUE(host.WaitForState(L"TxE2eHeld", SERVICE_STOPPED));
    EXPECT_TRUE(host.WaitForThreadEnd(L"TxE2eHeld"));

    ASSERT_EQ(state.Key().DeleteValue(L"OobeState"), DWORD{0}) << "a state that cannot be read";
    host.StartAndWait(L"TxE2eKeeper");
    ASSERT_EQ(state.Key().WriteDword(L"OobeState", 65535), DWORD{0});
    host.StartAndWait(L"TxE2eHeld");
    ASSERT_EQ(state.Key().WriteDword(L"OobeState", 0), DWORD{0}) << "too late: the check is off for good";
    host.Stop(L"TxE2eHeld");
    host.StartAndWait(L"TxE2eHeld");

    Basalt::CRegKey root;
    DWORD required = 99;
    ASSERT_EQ(root.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_READ), DWORD{0});
    EXPECT_EQ(root.ReadDword(L"IsOobeCheckRequired", required), DWORD{0});
    EXPECT_EQ(required, 0U);
    for (const wchar_t* name : {L"TxE2eHeld", L"TxE2eExcluded", L"TxE2eKeeper", L"TxOobeSv2"})
    {
        host.Stop(name);
    }
    EXPECT_EQ(host.WaitForExit(), 0U);
}

TEST(StartConditions, ASignalTrimsTheWorkingSetAndTheLearntBandSurvivesARestart)
{
    constexpr DWORD kBand = 15728640;
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    CTestGroup group(L"TxE2eTrim", {Hosted(L"TxE2eTrim1")});
    group.SetRootValue(L"WSSLoggingEnable", 1);
    ASSERT_EQ(group.Key().WriteDword(L"WSSOptimalBucketUpperLimit", kBand), DWORD{0});
    for (int start = 1; start <= 2; ++start)
    {
        SCOPED_TRACE(start);
        DWORD stored = 0;
        CGroupRunner host(group.CommandLine());
        host.StartAndWait(L"TxE2eTrim1");

        const auto name = Contract::WorkingSetEventName(host.ProcessId());
        const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
        ASSERT_TRUE(event);
        if (start == 1)
        {
            // The trim comes once the CPU usage was measured over its shortest time, five seconds.
            EXPECT_TRUE(::SetEvent(event.Get()));
            EXPECT_TRUE(log.WaitFor(L"Normal", L"Process working set adjusted successfully", 20000));
        }
        host.Stop(L"TxE2eTrim1");
        EXPECT_EQ(host.WaitForExit(), 0U);
        EXPECT_EQ(group.Key().ReadDword(L"WSSOptimalBucketUpperLimit", stored), DWORD{0});
        EXPECT_EQ(stored, kBand);
        EXPECT_EQ(
            log.Count(L"Normal", L" stOptimalBucketUpperLimit=15728640"), static_cast<std::size_t>(start));
    }
}

TEST(StartConditions, WithoutReductionThereIsNoEventAndTheGroupRuns)
{
    CTestGroup group(L"TxE2eNoTrim", {Hosted(L"TxE2eNoTrim1")});
    group.SetRootValue(L"WSSEnable", 0);
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxE2eNoTrim1");

    const auto name = Contract::WorkingSetEventName(host.ProcessId());
    EXPECT_FALSE(Basalt::CHandle(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data())));
    host.Stop(L"TxE2eNoTrim1");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

} // namespace
