#include <windows.h>

#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>

#include "logging/text/TextLogger.h"
#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/ImportPatch.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"

namespace
{

constexpr wchar_t kTestClsid[] = L"{6E0C8F8B-51C9-4A63-9D0B-3A6F1F6B7A11}";

std::wstring FakeHost(const std::wstring& arguments)
{
    return L"\"" + BesideTest(L"fake_host.exe") + L"\" " + arguments;
}

bool HasEnded(const Basalt::CHandle& process)
{
    return ::WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0;
}

Basalt::CHandle OpenProcessById(DWORD id)
{
    return Basalt::CHandle(::OpenProcess(SYNCHRONIZE, FALSE, id));
}

bool ServiceExists(const std::wstring& name)
{
    return static_cast<bool>(OpenServiceByName(name, SERVICE_QUERY_STATUS));
}

bool KeyExists(const std::wstring& path)
{
    Basalt::CRegKey key;
    return key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) == ERROR_SUCCESS;
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

    CServiceScope m_alpha{L"txalpha", FakeHost(L"txalpha")};
    CServiceScope m_beta{L"txbeta", FakeHost(L"txbeta")};
};

TEST_F(GroupRunner, TheProcessEndsWithTheLastOfItsServicesAndAnswersForEach)
{
    CGroupRunner host(FakeHost(L"txalpha txbeta"));

    host.StartAndWait(L"txalpha");
    host.StartAndWait(L"txbeta");

    EXPECT_EQ(host.Start(L"txalpha"), DWORD{ERROR_SERVICE_ALREADY_RUNNING});
    EXPECT_EQ(host.Control(L"txbeta", SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    host.Stop(L"txalpha");
    EXPECT_EQ(host.Control(L"txalpha", SERVICE_CONTROL_STOP), DWORD{ERROR_SERVICE_NOT_ACTIVE});
    EXPECT_EQ(StateOf(L"txbeta"), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(host.WaitForExit(0), std::nullopt);
    host.Stop(L"txbeta");
    EXPECT_EQ(host.WaitForExit(), DWORD{0});
}

TEST_F(GroupRunner, AHostThatDoesNotDispatchOrAServiceThatItDoesNotHaveIsReported)
{
    EXPECT_THROW(CGroupRunner(FakeHost(L"/exit 7")), std::runtime_error);
    EXPECT_THROW(CGroupRunner(FakeHost(L"/sleep"), 300), std::runtime_error);

    CGroupRunner host(FakeHost(L"txalpha txother"));
    EXPECT_EQ(host.Start(L"txbeta"), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(StateOf(L"txbeta"), DWORD{SERVICE_STOPPED});
}

TEST_F(GroupRunner, NothingIsLeftOfAHostThatStillRunsOrWasEndedByForce)
{
    for (const bool force : {false, true})
    {
        Basalt::CHandle process;
        {
            CGroupRunner host(FakeHost(L"txalpha txbeta"));
            process = OpenProcessById(host.ProcessId());
            host.StartAndWait(L"txalpha");
            if (force)
            {
                ASSERT_TRUE(::TerminateProcess(host.Process(), 9));
                EXPECT_EQ(host.WaitForExit(), DWORD{9});
                EXPECT_FALSE(host.WaitForState(L"txalpha", SERVICE_STOPPED));
                EXPECT_EQ(host.Control(L"txalpha", SERVICE_CONTROL_STOP), DWORD{ERROR_PROCESS_ABORTED});
            }
        }
        EXPECT_TRUE(HasEnded(process));
        EXPECT_EQ(StateOf(L"txalpha"), DWORD{SERVICE_STOPPED});
    }
}

TEST(ServiceScope, ARunningServiceIsStoppedBeforeItsEntryIsRemoved)
{
    Basalt::CHandle process;
    {
        const CServiceScope service(L"txalpha", FakeHost(L"txalpha"));
        ASSERT_TRUE(::StartServiceW(service.Handle(), 0, nullptr));
        ASSERT_TRUE(WaitForServiceState(L"txalpha", SERVICE_RUNNING, CGroupRunner::kDefaultTimeoutMs));
        process = OpenProcessById(QueryService(L"txalpha").dwProcessId);
    }
    EXPECT_TRUE(HasEnded(process));
    EXPECT_FALSE(ServiceExists(L"txalpha"));
}

TEST(TestGroup, RemovesWhatItWroteAndPutsSettingsBack)
{
    const std::wstring groupKey = std::wstring(kHostKey) + L"\\TxStandin";
    const std::wstring classKey = std::wstring(L"Software\\Classes\\CLSID\\") + kTestClsid;
    const std::optional<DWORD> before = ReadHostSetting(L"ForceSerialLoads");
    {
        CTestGroup group(L"TxStandin", {{L"txalpha", kTestClsid, L"C:\\a.dll"}, {L"txbeta", L"", L""}});
        group.SetRootValue(L"ForceSerialLoads", 1);
        group.SetRootValue(L"ForceSerialLoads", 0);

        EXPECT_EQ(ReadHostSetting(L"ForceSerialLoads"), DWORD{0});
        EXPECT_TRUE(KeyExists(groupKey) && KeyExists(classKey));
        EXPECT_TRUE(ServiceExists(L"txalpha") && ServiceExists(L"txbeta"));
    }
    EXPECT_FALSE(KeyExists(groupKey) || KeyExists(classKey));
    EXPECT_EQ(ReadHostSetting(L"ForceSerialLoads"), before);
    EXPECT_FALSE(ServiceExists(L"txalpha") || ServiceExists(L"txbeta"));
}

TEST(HostLog, ReadsWhatTheFileLoggerWrote)
{
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    ETWLogging::CLogging logger(ETWLogging::ReadLogSettings());
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
    EXPECT_EQ(lines[0].processId, ::GetCurrentProcessId());
    EXPECT_EQ(lines[0].threadId, ::GetCurrentThreadId());
    EXPECT_EQ(lines[0].source, L"Proxy.cpp");
    EXPECT_EQ(lines[0].line, 42U);
    EXPECT_EQ(lines[0].function, L"CProxy::Run");
    EXPECT_EQ(lines[0].message, L"costs 5$ [x]$ (()]$");
    EXPECT_EQ(lines[1].tag, L"tag");
    EXPECT_EQ(lines[1].message, L"first\nsecond");
    EXPECT_TRUE(log.WaitFor(L"Normal", L"first\nsecond", 0));
    EXPECT_FALSE(log.Has(L"Error", L"first\nsecond"));
}

TEST(ImportPatch, ReplacesAFunctionForItsScopeOnlyAndSaysWhenThereIsNone)
{
    const auto fake = +[]() -> DWORD { return 42; };
    {
        const CImportPatch patch("GetCurrentProcessId", fake);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(::GetCurrentProcessId(), 42U);
    }
    EXPECT_NE(::GetCurrentProcessId(), 42U);
    EXPECT_FALSE(CImportPatch("NoSuchFunctionInAnyLibrary", fake).IsActive());
}
