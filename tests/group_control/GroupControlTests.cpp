#include "support/GroupControl.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "base/ClassObject.h"
#include "base/ObfuscatedRegKey.h"
#include "control/UpdateManager.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/Process.h"
#include "support/TestKey.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;
const std::wstring kUpdateEvent = std::wstring(kTxUpdateEventPrefix) + kTxUpdateDefaultInstance;
constexpr wchar_t kForcedStop[] = L"Reduce restart: Enter MyTerminateThread";

TestSubsystem Hosted(const std::wstring& service)
{
    return {service, L"{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01}", BesideTest(L"MinimalSubsystem.dll")};
}

std::wstring Quoted(const std::wstring& program)
{
    return L"\"" + BesideTest(program) + L"\" ";
}

bool Start(const std::wstring& service)
{
    const Basalt::CServiceHandle handle = OpenServiceByName(service, SERVICE_START);
    return ::StartServiceW(handle.Get(), 0, nullptr) &&
           WaitForServiceState(service, SERVICE_RUNNING, kTimeoutMs);
}

HRESULT CreateManager(const ClassObject& classObject)
{
    ITxSvcSubsystemControlManager* control = nullptr;
    const HRESULT result = classObject.Get()->CreateObject(
        IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
    const GroupControl owner(control);
    return result;
}

class GroupControlTest : public ::testing::Test
{
protected:
    GroupControlTest() { ForgetClassObjects(); }
    ~GroupControlTest() override { ::CoUninitialize(); }

    const HRESULT m_com = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CTestFolder m_folder;
    CInstallation m_installation;
    CHostLog m_log{m_folder.Path()};
};

/// Wine's manager runs each service in a process of its own; the stop comes to one of them.
TEST_F(GroupControlTest, AnUpdaterStopsOneGroupAfterTheOtherAndStartsTheCoreGroupAgain)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const std::vector<std::wstring> names = {L"TxKscSvc", L"TXPLTSVC", L"TxGcOther1"};
    m_installation.AddGroup(L"TxCoreSvc", {Hosted(names[0]), Hosted(names[1])});
    m_installation.AddGroup(L"TxGcOther", {Hosted(names[2])});
    CTestKey record(HKEY_LOCAL_MACHINE, kTestRecordKey);
    Basalt::CObfuscatedRegKey settings;
    ASSERT_EQ(settings.Create(HKEY_LOCAL_MACHINE, kLogKey, KEY_ALL_ACCESS), 0U);
    ASSERT_EQ(settings.WriteString(L"Controller Path WSS", BesideTest(L"doubles\\tarvex\\LogCntrl.dll")), 0U);
    std::vector<std::wstring> stops;
    for (const std::wstring& name : names)
    {
        ASSERT_TRUE(Start(name));
        stops.push_back(L"Stop-" + std::to_wstring(QueryService(name).dwProcessId));
    }

    EXPECT_EQ(RunProcess(Quoted(L"Updater.exe") + L"stop", kTimeoutMs), 0U);

    for (std::size_t i = 0; i < names.size(); ++i)
    {
        EXPECT_EQ(QueryService(names[i]).dwCurrentState, DWORD{SERVICE_STOPPED});
        DWORD yes = 0; // Each process ends like any other: it stops the log controller, too.
        EXPECT_EQ(record.Key().ReadDword(stops[i].c_str(), yes), 0U);
    }
    EXPECT_EQ(m_log.Count(L"Information", kForcedStop), 2U);
    std::wstring ended;
    for (const ETWLogging::LogEntry& line : m_log.Lines())
    {
        const std::size_t end = line.message.find(L" completed after ");
        ended += end == std::wstring::npos ? L"" : line.message.substr(0, end) + L";";
    }
    EXPECT_NE(ended.find(L"ServiceMain for TXPLTSVC;ServiceMain for TxKscSvc;"), std::wstring::npos);
    EXPECT_EQ(settings.DeleteValue(L"Controller Path WSS"), 0U);
    EXPECT_EQ(RunProcess(Quoted(L"Updater.exe") + L"start " + Quoted(L"TxSvHost.exe")), 0U);
    EXPECT_TRUE(WaitForServiceState(names[0], SERVICE_RUNNING, kTimeoutMs));
    EXPECT_TRUE(WaitForServiceState(names[1], SERVICE_RUNNING, kTimeoutMs));
}

TEST_F(GroupControlTest, AStopEndsTheProcessASecondLaterWhoeverStillCalls)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    CGroupRunner host(m_installation.AddGroup(L"TxGcLate", {Hosted(L"TxGcLate1")}));
    host.StartAndWait(L"TxGcLate1");
    const ClassObject classObject = ConnectToHost();
    std::vector<std::jthread> crowd(8);
    for (std::jthread& client : crowd)
    {
        client = std::jthread([&classObject](const std::stop_token& stop) {
            while (!stop.stop_requested() && SUCCEEDED(CreateManager(classObject)))
            {
            }
        });
    }
    const GroupControl control = ConnectToControl();
    DWORD processId = 0;
    const ULONGLONG asked = ::GetTickCount64(); // On a busy machine the answer may be seen late.

    // The manager does not know this process, so that only the forced stop ends the service.
    EXPECT_EQ(
        control.Get()->TxStopSvcSubsystem(0, &processId), static_cast<HRESULT>(0x80004005 | 0x80070425));

    EXPECT_EQ(processId, host.ProcessId());
    EXPECT_EQ(host.WaitForExit(), 0U);
    EXPECT_GE(::GetTickCount64() - asked, 900U);
    crowd.clear();
    EXPECT_EQ(m_log.Count(L"Information", L"Failed to stop service:TxGcLate1, error code 1061"), 1U);
}

/// An update client and its class object, for a host in another process.
class CUpdateClient final : public ITxSvcClassObject, public ITxUpdateClientRot
{
public:
    CUpdateClient(REFIID creation, DWORD answer, HRESULT result)
        : m_creation(creation), m_answer(answer), m_result(result)
    {
        if (m_creation != IID_NULL)
        {
            EXPECT_EQ(
                ::CoRegisterClassObject(
                    CLSID_TxUpdateClient,
                    static_cast<ITxSvcClassObject*>(this),
                    CLSCTX_LOCAL_SERVER,
                    REGCLS_MULTIPLEUSE,
                    &m_cookie),
                S_OK);
        }
    }
    ~CUpdateClient() { ::CoRevokeClassObject(m_cookie); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == IID_ITxUpdateClientRot              ? static_cast<ITxUpdateClientRot*>(this)
                  : iid == IID_IUnknown || iid == m_creation ? static_cast<ITxSvcClassObject*>(this)
                                                             : static_cast<void*>(nullptr);
        return *object == nullptr ? E_NOINTERFACE : S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID iid, void** object) override
    {
        return QueryInterface(iid, object);
    }
    HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) override
    {
        *installing = m_answer;
        return m_result;
    }

private:
    IID m_creation;
    DWORD m_answer;
    HRESULT m_result;
    DWORD m_cookie = 0;
};

TEST_F(GroupControlTest, OnlyATrustedClientKeepsAHostDownAndOnlyATrustedStubGetsAManager)
{
    const std::wstring command = m_installation.AddGroup(L"TxGcUpdate", {Hosted(L"TxGcUpdate1")});
    const Basalt::CHandle event(::CreateEventW(nullptr, TRUE, FALSE, kUpdateEvent.c_str()));
    const struct
    {
        const char* name;
        const IID& creation; ///< The client's class object answers this; IID_NULL: there is none.
        const wchar_t* proxies;
        DWORD answer;
        HRESULT result;
        const wchar_t* error = L"";
        HRESULT manager = S_OK;
    } rows[] = {
        {"installing", IID_ITxSvcClassObject, L"quintor", 7, S_OK},
        {"by the older name", Basalt::IID_ITxSvcClassObjectOld, L"tarvex", 1, S_OK},
        {"not installing", IID_ITxSvcClassObject, L"tarvex", 0, S_OK},
        {"cannot say",
         IID_ITxSvcClassObject,
         L"quintor",
         1,
         E_ABORT,
         L"Reduce restart: Failed to ask ITxUpdateClientRot object,hr = 0x80004004"},
        {"no client",
         IID_NULL,
         L"tarvex",
         1,
         S_OK,
         L"Reduce restart: Failed to create ITxUpdateClientRot object,hr = 0x80040154"},
        {"not signed",
         IID_ITxSvcClassObject,
         L"unsigned",
         1,
         S_OK,
         L"Reduce restart: Failed to create ITxUpdateClientRot object,hr = 0x80070005",
         E_ACCESSDENIED},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const CTestFolder folder;
        const CHostLog log(folder.Path());
        const CProxyRegistration proxies(SignedProxies(row.proxies));
        CUpdateClient client(row.creation, row.answer, row.result);
        const DWORD read = *row.error == 0 ? row.answer : 0;
        if (read != 0)
        {
            SkipControlPipe();
            EXPECT_EQ(RunProcess(command), 0U);
        }
        else
        {
            CGroupRunner host(command);
            host.StartAndWait(L"TxGcUpdate1");
            const ClassObject classObject = ConnectToHost();
            EXPECT_EQ(CreateManager(classObject), row.manager);
            host.Stop(L"TxGcUpdate1");
            EXPECT_EQ(host.WaitForExit(), 0U);
        }
        EXPECT_EQ(
            log.Count(L"Information", L"IsInstallingUpdate return value is " + std::to_wstring(read)), 1U);
        EXPECT_EQ(log.Count(L"Error", L"Reduce restart"), *row.error == 0 ? 0U : 1U);
        EXPECT_TRUE(*row.error == 0 || log.Count(L"Error", row.error) == 1);
    }
}

TEST_F(GroupControlTest, TheSampleUpdateClientKeepsHostsDownWhileItLives)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const std::wstring command = m_installation.AddGroup(L"TxGcSample", {Hosted(L"TxGcSample1")});
    CProcess client(Quoted(L"UpdateClient.exe") + L"60");
    while (!Basalt::CHandle(::OpenEventW(SYNCHRONIZE, FALSE, kUpdateEvent.c_str())))
    {
        ASSERT_EQ(::WaitForSingleObject(client.Handle(), 10), DWORD{WAIT_TIMEOUT});
    }
    SkipControlPipe();
    EXPECT_EQ(RunProcess(command), 0U);
    const std::string told = RunForOutput(Quoted(L"txsvcctl.exe") + L"check TxGcSample1").out;
    EXPECT_NE(told.find("it says that it installs: a host that starts now ends at once"), told.npos) << told;
    ::TerminateProcess(client.Handle(), ERROR_PROCESS_ABORTED);
    EXPECT_EQ(client.Wait(), DWORD{ERROR_PROCESS_ABORTED});
    EXPECT_EQ(m_log.Count(L"Information", L"Reduce restart: IsInstallingUpdate return value is 1"), 1U);

    CGroupRunner host(command);
    host.StartAndWait(L"TxGcSample1");
    host.Stop(L"TxGcSample1");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

} // namespace
