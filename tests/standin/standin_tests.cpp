#include <windows.h>
#include <tlhelp32.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>

#include "logging/Logging.h"
#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"
#include "support/TestKey.h"

using ::testing::HasSubstr;

namespace
{

constexpr wchar_t kArgumentKey[] = L"Software\\TxStandinTests";
constexpr wchar_t kFakeHostName[] = L"fake_host.exe";
constexpr wchar_t kTestClsid[] = L"{6E0C8F8B-51C9-4A63-9D0B-3A6F1F6B7A11}";

std::wstring FakeHost(const std::wstring& arguments)
{
    return L"\"" + BesideTest(kFakeHostName) + L"\" " + arguments;
}

int CountFakeHosts()
{
    const Basalt::CFile processes(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    int count = 0;
    for (BOOL more = ::Process32FirstW(processes.Get(), &entry); more;
         more = ::Process32NextW(processes.Get(), &entry))
    {
        count += ::lstrcmpiW(entry.szExeFile, kFakeHostName) == 0 ? 1 : 0;
    }
    return count;
}

/// As a broken run leaves it: an entry without an owner.
bool CreateLeftover(const wchar_t* name)
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    const Basalt::CServiceHandle service(::CreateServiceW(
        manager.Get(),
        name,
        name,
        SERVICE_ALL_ACCESS,
        SERVICE_WIN32_SHARE_PROCESS,
        SERVICE_DEMAND_START,
        SERVICE_ERROR_IGNORE,
        L"C:\\no such\\host.exe",
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr));
    return static_cast<bool>(service);
}

bool ServiceExists(const std::wstring& name)
{
    return static_cast<bool>(OpenServiceByName(name, SERVICE_QUERY_STATUS));
}

/// What a key's value holds; nothing when there is no such key or value.
std::optional<std::wstring> ReadMachineString(const std::wstring& path, const wchar_t* name)
{
    Basalt::CRegKey key;
    std::wstring text;
    const bool isRead = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) == ERROR_SUCCESS &&
                        key.ReadString(name, text) == ERROR_SUCCESS;
    return isRead ? std::optional(text) : std::nullopt;
}

std::optional<DWORD> ReadHostSetting(const wchar_t* name)
{
    Basalt::CRegKey key;
    DWORD value = 0;
    const bool isRead = key.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_READ) == ERROR_SUCCESS &&
                        key.ReadDword(name, value) == ERROR_SUCCESS;
    return isRead ? std::optional(value) : std::nullopt;
}

} // namespace

class GroupRunner : public ::testing::Test
{
protected:
    static DWORD StateOf(const std::wstring& name) { return QueryService(name).dwCurrentState; }

    CTestKey m_arguments{HKEY_CURRENT_USER, kArgumentKey};
    CServiceScope m_alpha{L"txalpha", FakeHost(L"txalpha")};
    CServiceScope m_beta{L"txbeta", FakeHost(L"txbeta")};
    CServiceScope m_gamma{L"txgamma", FakeHost(L"txgamma")};
};

TEST_F(GroupRunner, ServicesShareOneProcessWhichEndsWithTheLastOfThem)
{
    CGroupRunner host(FakeHost(L"txalpha txbeta"));

    host.StartAndWait(L"txalpha");
    host.StartAndWait(L"txbeta");

    EXPECT_EQ(CountFakeHosts(), 1);
    EXPECT_EQ(host.Start(L"txalpha"), DWORD{ERROR_SERVICE_ALREADY_RUNNING});
    EXPECT_EQ(host.Control(L"txalpha", SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(host.Control(L"txbeta", SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    host.Stop(L"txalpha");
    EXPECT_EQ(host.Control(L"txalpha", SERVICE_CONTROL_STOP), DWORD{ERROR_SERVICE_NOT_ACTIVE});
    EXPECT_EQ(StateOf(L"txbeta"), DWORD{SERVICE_RUNNING});
    host.StartAndWait(L"txalpha");
    host.Stop(L"txbeta");
    EXPECT_EQ(host.WaitForExit(0), std::nullopt);
    host.Stop(L"txalpha");
    EXPECT_EQ(host.WaitForExit(), DWORD{0});
}

TEST_F(GroupRunner, ServiceGetsItsArguments)
{
    CGroupRunner host(FakeHost(L"txalpha txbeta"));
    std::wstring alpha;
    std::wstring beta;

    host.StartAndWait(L"txalpha", {kArgumentKey, L"0", L"two words"});
    host.StartAndWait(L"txbeta", {kArgumentKey});

    EXPECT_EQ(m_arguments.Key().ReadString(L"txalpha", alpha), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(m_arguments.Key().ReadString(L"txbeta", beta), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(alpha, std::wstring(kArgumentKey) + L"|0|two words");
    EXPECT_EQ(beta, kArgumentKey);
}

// Wine's dispatcher would never return if the second one reported its end while the first one's thread still
// ran.
TEST_F(GroupRunner, StopWaitsForTheThreadThatOutlivesItsService)
{
    CGroupRunner host(FakeHost(L"txalpha txbeta"));
    host.StartAndWait(L"txalpha", {kArgumentKey, L"300"});
    host.StartAndWait(L"txbeta", {kArgumentKey, L"300"});

    const ULONGLONG begin = ::GetTickCount64();
    host.Stop(L"txalpha");
    const ULONGLONG elapsedMs = ::GetTickCount64() - begin;
    host.Stop(L"txbeta");

    EXPECT_GE(elapsedMs, 280U); // The clock ticks coarsely.
    EXPECT_EQ(host.WaitForExit(), DWORD{0});
}

TEST_F(GroupRunner, RefusedStartLeavesTheServiceStopped)
{
    CGroupRunner host(FakeHost(L"txalpha txbeta"));

    EXPECT_EQ(host.Start(L"txnosuch"), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_EQ(host.Start(L"txgamma"), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(StateOf(L"txgamma"), DWORD{SERVICE_STOPPED});
    EXPECT_THROW(host.StartAndWait(L"txgamma"), std::runtime_error);
}

TEST_F(GroupRunner, HostThatDoesNotDispatchIsReportedAndRemoved)
{
    const struct
    {
        const wchar_t* arguments;
        DWORD timeoutMs;
        const char* text;
    } rows[] = {
        {L"/exit 7", CGroupRunner::kDefaultTimeoutMs, "the host ended with 7 before"},
        {L"/sleep", 300, "did not call the service dispatcher within 300 ms"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        std::string text;

        try
        {
            const CGroupRunner host(FakeHost(row.arguments), row.timeoutMs);
        }
        catch (const std::runtime_error& failure)
        {
            text = failure.what();
        }

        EXPECT_THAT(text, HasSubstr(row.text));
        EXPECT_EQ(CountFakeHosts(), 0);
    }
    EXPECT_THROW(CGroupRunner(L"\"C:\\no such\\host.exe\""), std::runtime_error);
}

TEST_F(GroupRunner, NothingIsLeftOfAHostThatStillRuns)
{
    {
        CGroupRunner host(FakeHost(L"txalpha txbeta"));
        host.StartAndWait(L"txalpha");
        host.StartAndWait(L"txbeta");
    }
    EXPECT_EQ(StateOf(L"txalpha"), DWORD{SERVICE_STOPPED});
    EXPECT_EQ(CountFakeHosts(), 0);
    {
        CGroupRunner host(FakeHost(L"txalpha txbeta"));
        host.StartAndWait(L"txalpha");
        ASSERT_TRUE(::TerminateProcess(host.Process(), 9));

        EXPECT_EQ(host.WaitForExit(), DWORD{9});
        EXPECT_FALSE(host.WaitForState(L"txalpha", SERVICE_STOPPED));
        EXPECT_EQ(host.Control(L"txalpha", SERVICE_CONTROL_INTERROGATE), DWORD{ERROR_PROCESS_ABORTED});
    }
    EXPECT_EQ(StateOf(L"txalpha"), DWORD{SERVICE_STOPPED});
}

TEST(ServiceScope, LeftoverIsReplacedAndARunningServiceIsStoppedFirst)
{
    ASSERT_TRUE(CreateLeftover(L"txalpha"));
    {
        const CServiceScope service(L"txalpha", FakeHost(L"txalpha"));
        ASSERT_TRUE(::StartServiceW(service.Handle(), 0, nullptr));
        ASSERT_TRUE(WaitForServiceState(L"txalpha", SERVICE_RUNNING, CGroupRunner::kDefaultTimeoutMs));
    }
    EXPECT_FALSE(ServiceExists(L"txalpha"));
    EXPECT_EQ(CountFakeHosts(), 0);
}

TEST(TestGroup, WritesWhatAnInstallationLeavesAndRemovesIt)
{
    const std::wstring groupKey = std::wstring(kHostKey) + L"\\TxStandin";
    const std::wstring serverKey =
        std::wstring(L"Software\\Classes\\CLSID\\") + kTestClsid + L"\\InprocServer32";
    const std::optional<DWORD> before = ReadHostSetting(L"ForceSerialLoads");
    {
        CTestGroup group(
            L"TxStandin", {{L"txalpha", kTestClsid, L"C:\\a.dll"}, {L"txbeta", L"", L""}}, L"C:\\host.exe");
        group.SetRootValue(L"ForceSerialLoads", 1);
        group.SetRootValue(L"ForceSerialLoads", 0);

        EXPECT_EQ(group.CommandLine(), L"\"C:\\host.exe\" /TxStandin");
        EXPECT_EQ(ReadMachineString(groupKey, L""), L"txalpha;txbeta");
        EXPECT_EQ(ReadMachineString(groupKey, L"txalpha"), kTestClsid);
        EXPECT_EQ(ReadMachineString(groupKey, L"txbeta"), std::nullopt);
        EXPECT_EQ(ReadMachineString(serverKey, L""), L"C:\\a.dll");
        EXPECT_EQ(ReadHostSetting(L"ForceSerialLoads"), DWORD{0});
        EXPECT_TRUE(ServiceExists(L"txalpha") && ServiceExists(L"txbeta"));
    }
    EXPECT_EQ(ReadMachineString(groupKey, L""), std::nullopt);
    EXPECT_EQ(ReadMachineString(serverKey, L""), std::nullopt);
    EXPECT_EQ(ReadHostSetting(L"ForceSerialLoads"), before);
    EXPECT_FALSE(ServiceExists(L"txalpha") || ServiceExists(L"txbeta"));
}

TEST(HostLog, ReadsWhatTheFileLoggerWrote)
{
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    ETWLogging::CLogging logger;
    ASSERT_EQ(logger.Initialize(L"PLATFORM", 0, nullptr, 0), DWORD{ERROR_SUCCESS});
    logger.Activate(); // Takes the settings that the log switched on.
    EXPECT_TRUE(log.Lines().empty());

    logger.SetApplicationTag(L"");
    logger.Log(L"c:\\src\\Proxy.cpp", L"CProxy::Run", 42, ETWLogging::LogError, L"costs 5$ [x]$ (()]$");
    logger.SetApplicationTag(L"tag");
    logger.Log(L"Store", L"CStore::Open", 123456, ETWLogging::LogNormal, L"first\r\nsecond\n");

    const std::vector<HostLogLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].level, L"Error");
    EXPECT_EQ(lines[0].tag, L"");
    EXPECT_EQ(lines[0].processId, ::GetCurrentProcessId());
    EXPECT_EQ(lines[0].threadId, ::GetCurrentThreadId());
    EXPECT_EQ(lines[0].source, L"Proxy.cpp");
    EXPECT_EQ(lines[0].line, 42U);
    EXPECT_EQ(lines[0].function, L"CProxy::Run");
    EXPECT_EQ(lines[0].message, L"costs 5$ [x]$ (()]$");
    EXPECT_EQ(lines[1].tag, L"tag");
    EXPECT_EQ(lines[1].line, 123456U);
    EXPECT_EQ(lines[1].message, L"first\nsecond");
    EXPECT_TRUE(log.WaitFor(L"Normal", L"first\nsecond", 0));
    EXPECT_FALSE(log.Has(L"Error", L"first\nsecond"));
    EXPECT_EQ(log.CountContaining(L"Error", L"5$"), 1U);
}
