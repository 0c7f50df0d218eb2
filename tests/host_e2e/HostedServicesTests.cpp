#include <windows.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/Narrow.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"
#include "support/TestKey.h"

namespace
{

TestSubsystem Hosted(const std::wstring& service, TestBehaviour behaviour)
{
    return {service, TestClsidText(behaviour), BesideTest(kTestModule)};
}

TEST(HostedServices, RunUnderTheRealManager)
{
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    CTestGroup group(L"TxE2eReal", {Hosted(L"TxE2eReal1", TestBehaviour::WellBehaved)});
    group.SetRootValue(L"IsOobeCheckRequired", 0);
    const auto service = OpenServiceByName(L"TxE2eReal1", SERVICE_ALL_ACCESS);

    ASSERT_TRUE(::StartServiceW(service.Get(), 0, nullptr));
    ASSERT_TRUE(WaitForServiceState(L"TxE2eReal1", SERVICE_RUNNING, 10000));
    const DWORD processId = QueryService(L"TxE2eReal1").dwProcessId;
    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, processId));
    ASSERT_TRUE(process);
    SERVICE_STATUS status{};
    ASSERT_TRUE(::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status));

    EXPECT_TRUE(WaitForServiceState(L"TxE2eReal1", SERVICE_STOPPED, 10000));
    ASSERT_EQ(::WaitForSingleObject(process.Get(), 10000), DWORD{WAIT_OBJECT_0});
    DWORD exitCode = 99;
    EXPECT_TRUE(::GetExitCodeProcess(process.Get(), &exitCode));
    EXPECT_EQ(exitCode, 0U);
    for (const HostLogLine& line : log.Lines())
    {
        EXPECT_EQ(line.processId, processId);
        EXPECT_NE(line.level, L"Error") << testing::PrintToString(line);
    }
    EXPECT_EQ(log.CountContaining(L"Normal", L"ServiceMain for TxE2eReal1 completed after "), 1U);
    EXPECT_EQ(log.CountContaining(L"Normal", L"SCM stopped after "), 1U);
}

TEST(HostedServices, ManyShareOneProcessAndGetTheirArguments)
{
    constexpr int kCount = 16;
    std::vector<TestSubsystem> subsystems;
    for (int i = 0; i < kCount; ++i)
    {
        subsystems.push_back(Hosted(L"TxE2eMany" + std::to_wstring(i), TestBehaviour::WellBehaved));
    }
    subsystems.push_back(Hosted(L"TxE2eManyExit", TestBehaviour::WellBehaved));
    const CTestGroup group(L"TxE2eMany", subsystems);
    CGroupRunner host(group.CommandLine());

    for (int i = 0; i < kCount; ++i)
    {
        host.StartAndWait(subsystems[static_cast<std::size_t>(i)].service);
    }
    ASSERT_EQ(host.Start(L"TxE2eManyExit", {L"exit", L"1234"}), DWORD{0});
    EXPECT_TRUE(host.WaitForState(L"TxE2eManyExit", SERVICE_STOPPED));
    EXPECT_EQ(QueryService(L"TxE2eManyExit").dwWin32ExitCode, 1234U);
    EXPECT_TRUE(host.WaitForThreadEnd(L"TxE2eManyExit"));
    for (int i = kCount - 1; i >= 0; --i)
    {
        host.Stop(subsystems[static_cast<std::size_t>(i)].service);
    }
    EXPECT_EQ(host.WaitForExit(), 0U);
}

TEST(HostedServices, LoadOneAfterAnotherOrSideBySideAsConfigured)
{
    for (const bool serial : {true, false})
    {
        SCOPED_TRACE(serial ? "serial" : "parallel");
        CTestKey records(HKEY_LOCAL_MACHINE, kTestRecordKey);
        const std::vector<std::wstring> names = {L"TxE2eLoad1", L"TxE2eLoad2", L"TxE2eLoad3"};
        CTestGroup group(
            L"TxE2eLoad",
            {Hosted(names[0], TestBehaviour::SlowLoad),
             Hosted(names[1], TestBehaviour::SlowLoad),
             Hosted(names[2], TestBehaviour::SlowLoad)});
        group.SetRootValue(L"ForceSerialLoads", serial ? 1 : 0);
        CGroupRunner host(group.CommandLine());
        for (const std::wstring& name : names)
        {
            ASSERT_EQ(host.Start(name), DWORD{0});
        }
        for (const std::wstring& name : names)
        {
            ASSERT_TRUE(host.WaitForState(name, SERVICE_RUNNING));
        }
        for (const std::wstring& name : names)
        {
            host.Stop(name);
        }
        EXPECT_EQ(host.WaitForExit(), 0U);

        std::vector<SlowLoadTimes> loads;
        wchar_t name[256] = {};
        SlowLoadTimes times{};
        for (DWORD i = 0;; ++i)
        {
            DWORD nameLength = 256;
            DWORD size = sizeof(times);
            if (::RegEnumValueW(
                    records.Key().Get(),
                    i,
                    name,
                    &nameLength,
                    nullptr,
                    nullptr,
                    reinterpret_cast<BYTE*>(&times),
                    &size) != ERROR_SUCCESS)
            {
                break;
            }
            loads.push_back(times);
        }
        ASSERT_EQ(loads.size(), names.size());
        std::sort(loads.begin(), loads.end(), [](const SlowLoadTimes& a, const SlowLoadTimes& b) {
            return a.entered < b.entered;
        });
        bool overlap = false;
        for (std::size_t i = 1; i < loads.size(); ++i)
        {
            overlap = overlap || loads[i].entered < loads[i - 1].left;
        }
        EXPECT_NE(overlap, serial);
    }
}

TEST(HostedServices, OneThatMisbehavesEndsAloneAndTheOthersRunOn)
{
    constexpr wchar_t kException[] = L"Exception found & suppressed in service, returning 0x000010DD";
    const struct
    {
        const char* name;
        TestBehaviour behaviour;
        const wchar_t* line; ///< what the host logs, an error
        DWORD exitCode;      ///< what the manager keeps
        bool hardware;       ///< needs structured exception handling
    } rows[] = {
        {"throws early", TestBehaviour::ThrowEarly, kException, 0, false},
        {"throws while running", TestBehaviour::ThrowRunning, kException, 0, false},
        {"crashes early", TestBehaviour::CrashEarly, kException, 0, true},
        {"crashes while running", TestBehaviour::CrashRunning, kException, 0, true},
        {"overflows its stack", TestBehaviour::StackOverflow, kException, 0, true},
        {"fails silently",
         TestBehaviour::FailSilently,
         L"Failed to start sub-service (hr=0x80004005)",
         0,
         false},
        {"fails after its own report",
         TestBehaviour::FailAfterStopped,
         L"Failed to start sub-service (hr=0x80004005)",
         21,
         false},
        {"stops with an error", TestBehaviour::StartFails, nullptr, 21, false},
        {"create fails", TestBehaviour::CreateFails, L"CreateObject failed (0x8007000E)", 0, false},
        {"create throws", TestBehaviour::CreateThrows, L"CreateObject failed (0x800710DD)", 0, false},
        {"create gives null",
         TestBehaviour::CreateGivesNull,
         L"Failed to get the subsystem interface for 'TxE2eBad'",
         0,
         false},
        {"no such class", TestBehaviour::ClassFails, L"DllGetClassObject failed (0x80040111)", 0, false},
        {"class throws", TestBehaviour::ClassThrows, L"DllGetClassObject failed (0x800710DD)", 0, false},
        {"class crashes", TestBehaviour::ClassCrashes, L"DllGetClassObject failed (0x800710DD)", 0, true},
        {"class refuses", TestBehaviour::ClassRefuses, L"DllGetClassObject failed (0x80004002)", 0, false},
    };
    const CTestFolder folder;
    CHostLog log(folder.Path());
    // Good and bad share a process; the bad one's CLSID is looked up at each of its starts.
    CTestGroup group(
        L"TxE2eBad",
        {Hosted(L"TxE2eGood", TestBehaviour::WellBehaved), Hosted(L"TxE2eBad", TestBehaviour::ThrowEarly)});
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxE2eGood");
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
#if !defined(__clang__)
        if (row.hardware)
        {
            continue;
        }
#endif
        CTestKey classKey(HKEY_CLASSES_ROOT, L"CLSID\\" + TestClsidText(row.behaviour) + L"\\InprocServer32");
        ASSERT_EQ(classKey.Key().WriteString(L"", BesideTest(kTestModule)), DWORD{0});
        ASSERT_EQ(group.Key().WriteString(L"TxE2eBad", TestClsidText(row.behaviour)), DWORD{0});
        const std::size_t before = row.line == nullptr ? 0 : log.Count(L"Error", row.line);

        ASSERT_EQ(host.Start(L"TxE2eBad"), DWORD{0});

        EXPECT_TRUE(host.WaitForState(L"TxE2eBad", SERVICE_STOPPED));
        EXPECT_TRUE(host.WaitForThreadEnd(L"TxE2eBad"));
        EXPECT_EQ(QueryService(L"TxE2eBad").dwWin32ExitCode, row.exitCode);
        EXPECT_EQ(QueryService(L"TxE2eGood").dwCurrentState, DWORD{SERVICE_RUNNING});
        EXPECT_TRUE(row.line == nullptr || log.Count(L"Error", row.line) == before + 1);
    }
    host.Stop(L"TxE2eGood");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

TEST(HostedServices, AFileThatIsNoModuleIsReportedAndStopsItsServiceOnly)
{
    const CTestFolder files;
    std::filesystem::copy_file(BesideTest(kTestModule), files.File(L"truncated.dll"));
    std::filesystem::resize_file(files.File(L"truncated.dll"), 1500);
    std::filesystem::copy_file(BesideTest(kTestModule), files.File(L"x86.dll"));
    {
        // The machine field, behind the "PE" mark that the DOS header leads to, says 32-bit x86.
        std::fstream file(
            std::filesystem::path(files.File(L"x86.dll")), std::ios::in | std::ios::out | std::ios::binary);
        DWORD offset = 0;
        file.seekg(offsetof(IMAGE_DOS_HEADER, e_lfanew));
        file.read(reinterpret_cast<char*>(&offset), sizeof(offset));
        file.seekp(offset + sizeof(DWORD));
        const WORD machine = IMAGE_FILE_MACHINE_I386;
        file.write(reinterpret_cast<const char*>(&machine), sizeof(machine));
    }
    std::ofstream(std::filesystem::path(files.File(L"text.dll"))) << "no module at all";
    const std::wstring clsid = TestClsidText(TestBehaviour::WellBehaved);
    const std::wstring cannotLoad = L"Unable to load module '";
    const struct
    {
        const char* name;
        std::wstring path;
        std::wstring line;
    } rows[] = {
        {"missing", files.File(L"missing.dll"), cannotLoad},
        {"empty path", L"", cannotLoad},
        {"folder", files.Path(), cannotLoad},
        {"text", files.File(L"text.dll"), cannotLoad},
        {"truncated", files.File(L"truncated.dll"), cannotLoad},
        {"32-bit", files.File(L"x86.dll"), cannotLoad},
        {"very long path", std::wstring(512 * 1024, L'x'), cannotLoad},
        {"no entry point", BesideTest(kNoExportModule), L"Module '" + BesideTest(kNoExportModule)},
    };
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    const CTestGroup group(L"TxE2eFile", {{L"TxE2eFile", clsid, L""}});
    CTestKey server(HKEY_CLASSES_ROOT, L"CLSID\\" + clsid);
    Basalt::CRegKey inproc;
    ASSERT_EQ(inproc.Create(server.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS), DWORD{0});
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(inproc.WriteString(L"", row.path), DWORD{0});
        const std::size_t before = log.CountContaining(L"Error", row.line);
        CGroupRunner host(group.CommandLine());

        ASSERT_EQ(host.Start(L"TxE2eFile"), DWORD{0});

        EXPECT_TRUE(host.WaitForState(L"TxE2eFile", SERVICE_STOPPED));
        EXPECT_EQ(host.WaitForExit(), 0U);
        EXPECT_EQ(log.CountContaining(L"Error", row.line), before + 1);
    }
}

TEST(HostedServices, TheUnloadResultFreesTheModuleWhileTheProcessGoesOn)
{
    CTestKey records(HKEY_LOCAL_MACHINE, kTestRecordKey);
    const CTestGroup group(
        L"TxE2eUnload",
        {Hosted(L"TxE2eUnload1", TestBehaviour::UnloadAfterStop),
         {L"TxE2eUnload2", L"{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01}", BesideTest(L"MinimalSubsystem.dll")}});
    CGroupRunner host(group.CommandLine());
    const std::wstring value = L"Unloaded-" + std::to_wstring(host.ProcessId());
    DWORD unloaded = 0;

    host.StartAndWait(L"TxE2eUnload2");
    host.StartAndWait(L"TxE2eUnload1");
    EXPECT_NE(records.Key().ReadDword(value.c_str(), unloaded), DWORD{0});
    host.Stop(L"TxE2eUnload1");
    host.Stop(L"TxE2eUnload2");

    EXPECT_EQ(host.WaitForExit(), 0U);
    EXPECT_EQ(records.Key().ReadDword(value.c_str(), unloaded), DWORD{0});
}

} // namespace
