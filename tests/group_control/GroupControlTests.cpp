#include "support/GroupControl.h"

#include <windows.h>
#include <objbase.h>
#include <psapi.h>

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/ClassObject.h"
#include "base/ModuleFinder.h"
#include "base/ObfuscatedRegKey.h"
#include "base/Text.h"
#include "control/UpdateManager.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/ComReference.h"
#include "support/GroupRunner.h"
#include "support/HandleCount.h"
#include "support/HostLog.h"
#include "support/Process.h"
#include "support/RawChannel.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"
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

class GroupControlTest : public ::testing::Test
{
protected:
    GroupControlTest() { ForgetClassObjects(); }
    ~GroupControlTest() override { ::CoUninitialize(); }

    const HRESULT m_com = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CTestFolder m_folder;
    CHostLog m_log{m_folder.Path()};
};

/// A process that is ended with its scope, so that a failed test leaves nobody behind.
struct ClientTraits : Basalt::HandleTraits
{
    static void Close(HANDLE value) noexcept
    {
        ::TerminateProcess(value, ERROR_PROCESS_ABORTED);
        ::CloseHandle(value);
    }
};
using CClient = Basalt::COwned<ClientTraits>;

CClient StartClient(std::wstring commandLine)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    EXPECT_TRUE(::CreateProcessW(
        nullptr,
        commandLine.data(),
        nullptr,
        nullptr,
        FALSE,
        DETACHED_PROCESS,
        nullptr,
        nullptr,
        &startup,
        &process));
    ::CloseHandle(process.hThread);
    return CClient(process.hProcess);
}

DWORD ExitCodeOf(HANDLE process)
{
    DWORD exitCode = STILL_ACTIVE;
    EXPECT_EQ(::WaitForSingleObject(process, kTimeoutMs), DWORD{WAIT_OBJECT_0});
    ::GetExitCodeProcess(process, &exitCode);
    return exitCode;
}

bool AreRunning(const std::vector<std::wstring>& services)
{
    return std::all_of(services.begin(), services.end(), [](const std::wstring& name) {
        return WaitForServiceState(name, SERVICE_RUNNING, kTimeoutMs);
    });
}

TEST_F(GroupControlTest, AnUpdaterStopsTheGroupInItsOrderAndStartsItAgain)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const std::vector<std::wstring> names = {L"TxKscSvc", L"TxGc1", L"TXPLTSVC", L"TxGc2"};
    const CTestGroup group(
        L"TxCoreSvc", {Hosted(names[0]), Hosted(names[1]), Hosted(names[2]), Hosted(names[3])});

    // Wine's manager runs each service in a process of its own; the stop comes to one of them.
    EXPECT_EQ(RunProcess(Quoted(L"TxSvHost.exe") + L"/startservices"), 0U);
    ASSERT_TRUE(AreRunning(names));
    std::vector<Basalt::CHandle> processes;
    processes.reserve(names.size());
    for (const std::wstring& name : names)
    {
        processes.emplace_back(::OpenProcess(
            SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, QueryService(name).dwProcessId));
    }
    const GroupControl control = ConnectToControl();
    DWORD processId = 0;
    EXPECT_EQ(control.Get()->TxStopSvcSubsystem(0, &processId), E_FAIL);
    const ULONGLONG answered = ::GetTickCount64();

    const Basalt::CHandle host(::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, processId));
    ASSERT_TRUE(host);
    EXPECT_EQ(ExitCodeOf(host.Get()), 0U);
    EXPECT_GE(::GetTickCount64() - answered, 900U);
    EXPECT_LE(::GetTickCount64() - answered, 5000U);
    std::vector<std::wstring> ended;
    for (const HostLogLine& line : m_log.Lines())
    {
        if (line.message.starts_with(L"ServiceMain for ") &&
            line.message.find(L" completed") != std::wstring::npos)
        {
            ended.push_back(line.message.substr(16, line.message.find(L" completed") - 16));
        }
        EXPECT_TRUE(line.message != kForcedStop || line.processId == processId);
    }
    EXPECT_EQ(ended, (std::vector<std::wstring>{L"TxGc1", L"TxGc2", L"TXPLTSVC", L"TxKscSvc"}));
    EXPECT_EQ(m_log.Count(L"Information", kForcedStop), 1U);
    for (const Basalt::CHandle& process : processes)
    {
        EXPECT_EQ(ExitCodeOf(process.Get()), 0U);
    }

    // Each service that is stopped takes the stop a second, so this time there is one of each group. Its
    // process ends like any other: also the log controller is stopped.
    const CTestGroup otherGroup(L"TxGcOther", {Hosted(L"TxGcOther1")});
    CTestKey record(HKEY_LOCAL_MACHINE, kTestRecordKey);
    Basalt::CObfuscatedRegKey settings;
    ASSERT_EQ(settings.Create(HKEY_LOCAL_MACHINE, kLogKey, KEY_ALL_ACCESS), 0U);
    ASSERT_EQ(settings.WriteString(L"Controller Path WSS", BesideTest(L"doubles\\tarvex\\LogCntrl.dll")), 0U);
    std::vector<std::wstring> stops;
    for (const std::wstring& name : {names[1], std::wstring(L"TxGcOther1")})
    {
        const Basalt::CServiceHandle one = OpenServiceByName(name, SERVICE_START);
        ASSERT_TRUE(::StartServiceW(one.Get(), 0, nullptr) && AreRunning({name}));
        stops.push_back(L"Stop-" + std::to_wstring(QueryService(name).dwProcessId));
    }
    EXPECT_EQ(RunProcess(Quoted(L"Updater.exe") + L"stop", kTimeoutMs), 0U);
    for (const std::wstring& stop : stops)
    {
        DWORD yes = 0;
        EXPECT_EQ(record.Key().ReadDword(stop.c_str(), yes), 0U);
    }
    EXPECT_EQ(settings.DeleteValue(L"Controller Path WSS"), 0U);
    EXPECT_EQ(QueryService(names[1]).dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(QueryService(L"TxGcOther1").dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(m_log.Count(L"Information", kForcedStop), 3U);
    EXPECT_EQ(RunProcess(Quoted(L"Updater.exe") + L"start " + Quoted(L"TxSvHost.exe")), 0U);
    EXPECT_TRUE(AreRunning(names));
}

TEST_F(GroupControlTest, OnlyTheStubOfASignedProxyDllGetsAManager)
{
    CTestGroup group(L"TxGcTrust", {Hosted(L"TxGcTrust1")});
    group.SetRootValue(L"IsOobeCheckRequired", 0);
    const struct
    {
        const wchar_t* variant;
        DWORD expected;
    } rows[] = {
        {L"tarvex", 0},
        {L"quintor", 0},
        {L"foreign", ERROR_ACCESS_DENIED},
        {L"changed", ERROR_ACCESS_DENIED},
        {L"unsigned", ERROR_ACCESS_DENIED},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(std::wstring(row.variant)));
        const CProxyRegistration proxies(SignedProxies(row.variant));
        CGroupRunner host(group.CommandLine());
        host.StartAndWait(L"TxGcTrust1");

        EXPECT_EQ(RunProcess(Quoted(L"ControlClient.exe") + L"2", kTimeoutMs), row.expected);

        host.Stop(L"TxGcTrust1");
        EXPECT_EQ(host.WaitForExit(), 0U);
    }
    EXPECT_EQ(m_log.CountContaining(L"Error", L"Reduce restart"), 0U) << "a refusal leaves no line";
}

TEST_F(GroupControlTest, AServiceThatIsStartedAfterTheStopBeganIsNotRun)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const CTestGroup group(L"TxGcLate", {Hosted(L"TxGcLate1"), Hosted(L"TxGcLate2")});
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxGcLate1");
    const GroupControl control = ConnectToControl();
    DWORD processId = 0;

    // The manager does not know this process, so that the service runs on and only the forced stop ends it.
    EXPECT_TRUE(FAILED(control.Get()->TxStopSvcSubsystem(0, &processId)));
    EXPECT_EQ(host.Start(L"TxGcLate2"), DWORD{0});

    EXPECT_EQ(processId, host.ProcessId());
    EXPECT_EQ(host.WaitForExit(), 0U);
    EXPECT_TRUE(m_log.Has(L"Information", L"Failed to stop service:TxGcLate1, error code 1061"));
    EXPECT_TRUE(m_log.Has(L"Error", L"GenericServiceMain is called when shutdown, argv[0] = TxGcLate2"));
    EXPECT_EQ(m_log.CountContaining(L"Normal", L"Entering ServiceMain for 'TxGcLate2'"), 0U);
}

TEST_F(GroupControlTest, ClientsThatDieOrCrowdDoNoHarm)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const CTestGroup group(L"TxGcCrowd", {Hosted(L"TxGcCrowd1")});
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxGcCrowd1");
    const GroupControl control = ConnectToControl();
    constexpr int kProcesses = 10;
    constexpr int kClients = 100;

    for (DWORD i = 0; i < 10; ++i)
    {
        const CClient client = StartClient(Quoted(L"ControlClient.exe") + L"1000000");
        ::Sleep(i * 30); // From before the connection to the middle of some creation.
    }
    EXPECT_EQ(control.Get()->Reserved(), E_NOTIMPL);

    const Basalt::CHandle start(::CreateEventW(nullptr, TRUE, FALSE, L"TxControlClientStart"));
    const Basalt::CHandle wake(::CreateEventW(nullptr, TRUE, FALSE, L"TxControlClientWake"));
    const Basalt::CHandle arrived(::CreateSemaphoreW(nullptr, 0, kClients, L"TxControlClientArrived"));
    std::vector<CClient> clients;
    clients.reserve(kProcesses);
    for (int i = 0; i < kProcesses; ++i)
    {
        // Wine 8 may lose a lock when a process ends while many of its threads fault pages, and there the
        // check of the caller costs so much that only long rests leave the host a few calls at a time.
        clients.push_back(StartClient(Quoted(L"ControlClient.exe") + L"1000000 10 20000"));
    }
    ::SetEvent(start.Get());
    for (int i = 0; i < kClients; ++i)
    {
        ASSERT_EQ(::WaitForSingleObject(arrived.Get(), kTimeoutMs), DWORD{WAIT_OBJECT_0}) << i;
    }
    EXPECT_TRUE(FAILED(control.Get()->TxStopSvcSubsystem(0, nullptr)));

    ASSERT_EQ(host.WaitForExit(), 0U);
    ::SetEvent(wake.Get());
    for (const CClient& client : clients)
    {
        // The low word of an RPC error; more than that would be a crash.
        const DWORD exitCode = ExitCodeOf(client.Get());
        EXPECT_TRUE(exitCode != 0 && exitCode != ERROR_ACCESS_DENIED && exitCode <= 0xFFFF) << exitCode;
    }
}

TEST_F(GroupControlTest, AMalformedRequestIsAnsweredWithAnError)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const CTestGroup group(L"TxGcBad", {Hosted(L"TxGcBad1")});
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxGcBad1");
    const std::vector<BYTE> ones(4096, 0xFF);
    const struct
    {
        const char* name;
        ULONG method;
        std::size_t size;
    } rows[] = {
        {"an IUnknown method", 0, 0},
        {"another", 2, 64},
        {"the next one", 5, 64},
        {"far away", 0x7FFF, 64},
        {"nothing", 4, 0},
        {"cut", 4, 3},
        {"cut", 4, 4},
        {"cut", 4, 7},
        {"a pointer to nothing", 4, 8},
        {"cut", 4, 11},
    };
    {
        const CRawChannel channel(IID_ITxSvcClassObject);
        const ClassObject classObject = ConnectToHost();
        for (std::size_t size = 0; size < sizeof(IID); ++size)
        {
            EXPECT_TRUE(FAILED(channel.Call(3, std::vector<BYTE>(size, 0x11)))) << size;
        }
        for (const ULONG method : {0U, 1U, 2U, 4U, 5U, 1000U, 0x7FFFU})
        {
            EXPECT_TRUE(FAILED(channel.Call(method, ones))) << method;
        }
    }
    {
        const CRawChannel channel(IID_ITxSvcSubsystemControlManager);
        const GroupControl control = ConnectToControl();
        for (const auto& row : rows)
        {
            SCOPED_TRACE(row.name);
            EXPECT_TRUE(FAILED(channel.Call(row.method, std::vector<BYTE>(row.size, 0xFF))));
        }
    }
    const GroupControl control = ConnectToControl();
    EXPECT_EQ(control.Get()->Reserved(), E_NOTIMPL) << "still sound";
    std::wstring path;
    EXPECT_EQ(Basalt::FindModuleOfAddress(Basalt::MethodOf(control.Get(), 0), path), DWORD{0});
    EXPECT_TRUE(path.ends_with(L"\\TxSvHostPS.dll")) << "where the proxy's code is";

    host.Stop(L"TxGcBad1");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

TEST_F(GroupControlTest, ManyCallsLeaveNothingButManagersBehind)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const CTestGroup group(L"TxGcMany", {Hosted(L"TxGcMany1")});
    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxGcMany1");
    const ClassObject classObject = ConnectToHost();
    const GroupControl control = ConnectToControl();
    const auto create = [&classObject](REFIID iid) {
        IUnknown* object = nullptr;
        const HRESULT result = classObject.Get()->CreateObject(iid, reinterpret_cast<void**>(&object));
        const CComReference<IUnknown> reference(object);
        return result;
    };
    const struct
    {
        const char* name;
        int calls;
        HRESULT expected;
        std::function<HRESULT()> call;
    } rows[] = {
        {"nothing", 1000, E_NOTIMPL, [&control] { return control.Get()->Reserved(); }},
        {"a failed creation", 20, E_NOINTERFACE, [&create] { return create(IID_ITxSvcClassObject); }},
        {"a creation", 20, S_OK, [&create] { return create(IID_ITxSvcSubsystemControlManager); }},
    };
    constexpr long long kGrowth = 32LL * 1024;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        // The first rounds bring COM's threads and what is loaded on first use, and a heap may grow by one
        // piece at any time; a leak grows in every round.
        long long growth = 0;
        long long handles = 0;
        for (int round = 0; round < 4 && (round == 0 || growth > kGrowth || handles > 10); ++round)
        {
            PROCESS_MEMORY_COUNTERS before{};
            PROCESS_MEMORY_COUNTERS after{};
            ::GetProcessMemoryInfo(host.Process(), &before, sizeof(before));
            handles = -static_cast<long long>(CountHandles(host.ProcessId()));
            for (int i = 0; i < row.calls; ++i)
            {
                ASSERT_EQ(row.call(), row.expected);
            }
            ::GetProcessMemoryInfo(host.Process(), &after, sizeof(after));
            growth =
                static_cast<long long>(after.PagefileUsage) - static_cast<long long>(before.PagefileUsage);
            handles += static_cast<long long>(CountHandles(host.ProcessId()));
        }
        EXPECT_LE(growth, kGrowth);
        EXPECT_LE(handles, 10);
    }
    host.Stop(L"TxGcMany1");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

/// An update client and its class object, for a host in another process.
class CUpdateClient final : public ITxSvcClassObject, public ITxUpdateClientRot
{
public:
    CUpdateClient(REFIID creation, DWORD answer, HRESULT result)
        : m_creation(creation), m_answer(answer), m_result(result)
    {
    }

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
};

TEST_F(GroupControlTest, TheHostEndsAtOnceWhileATrustedUpdateClientInstalls)
{
    const CTestGroup group(L"TxGcUpdate", {Hosted(L"TxGcUpdate1")});
    const struct
    {
        const char* name;
        const IID* creation; ///< The client's class object answers this; null: there is none.
        const wchar_t* proxies;
        DWORD answer;
        HRESULT result;
        const wchar_t* failing;
        HRESULT error;
        bool hasEvent = true;
    } rows[] = {
        {"installing", &IID_ITxSvcClassObject, L"quintor", 7, S_OK, nullptr, S_OK},
        {"by the older name", &Basalt::IID_ITxSvcClassObjectOld, L"tarvex", 1, S_OK, nullptr, S_OK},
        {"not installing", &IID_ITxSvcClassObject, L"tarvex", 0, S_OK, nullptr, S_OK},
        {"no update manager", &IID_ITxSvcClassObject, L"tarvex", 1, S_OK, nullptr, S_OK, false},
        {"cannot say", &IID_ITxSvcClassObject, L"tarvex", 1, E_ABORT, L"ask", E_ABORT},
        {"no client", nullptr, L"tarvex", 1, S_OK, L"create", REGDB_E_CLASSNOTREG},
        {"not signed", &IID_ITxSvcClassObject, L"unsigned", 1, S_OK, L"create", E_ACCESSDENIED},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const CTestFolder folder;
        const CHostLog log(folder.Path());
        const CProxyRegistration proxies(SignedProxies(row.proxies));
        const Basalt::CHandle event(
            row.hasEvent ? ::CreateEventW(nullptr, TRUE, FALSE, kUpdateEvent.c_str()) : nullptr);
        CUpdateClient client(row.creation != nullptr ? *row.creation : IID_NULL, row.answer, row.result);
        DWORD cookie = 0;
        if (row.creation != nullptr)
        {
            ASSERT_EQ(
                ::CoRegisterClassObject(
                    CLSID_TxUpdateClient,
                    static_cast<ITxSvcClassObject*>(&client),
                    CLSCTX_LOCAL_SERVER,
                    REGCLS_MULTIPLEUSE,
                    &cookie),
                S_OK);
        }

        const DWORD read = row.hasEvent && row.failing == nullptr ? row.answer : 0;
        if (read != 0)
        {
            SkipControlPipe();
            EXPECT_EQ(RunProcess(group.CommandLine()), 0U);
        }
        else
        {
            CGroupRunner host(group.CommandLine());
            host.StartAndWait(L"TxGcUpdate1");
            host.Stop(L"TxGcUpdate1");
            EXPECT_EQ(host.WaitForExit(), 0U);
        }

        ::CoRevokeClassObject(cookie);
        EXPECT_TRUE(log.Has(
            L"Information", L"Reduce restart: IsInstallingUpdate return value is " + std::to_wstring(read)));
        EXPECT_EQ(log.CountContaining(L"Error", L"Reduce restart"), row.failing == nullptr ? 0U : 1U);
        const std::wstring failure = Basalt::FormatText(
            L"Reduce restart: Failed to %s ITxUpdateClientRot object,hr = 0x%08x", row.failing, row.error);
        EXPECT_TRUE(row.failing == nullptr || log.Has(L"Error", failure));
    }
}

TEST_F(GroupControlTest, TheSampleUpdateClientKeepsHostsDownWhileItLives)
{
    const CProxyRegistration proxies(SignedProxies(L"tarvex"));
    const CTestGroup group(L"TxGcSample", {Hosted(L"TxGcSample1")});
    {
        const CClient client = StartClient(Quoted(L"UpdateClient.exe") + L"3600");
        while (!Basalt::CHandle(::OpenEventW(SYNCHRONIZE, FALSE, kUpdateEvent.c_str())))
        {
            ASSERT_EQ(::WaitForSingleObject(client.Get(), 10), DWORD{WAIT_TIMEOUT});
        }
        SkipControlPipe();
        EXPECT_EQ(RunProcess(group.CommandLine()), 0U);
    }
    EXPECT_TRUE(m_log.Has(L"Information", L"Reduce restart: IsInstallingUpdate return value is 1"));

    CGroupRunner host(group.CommandLine());
    host.StartAndWait(L"TxGcSample1");
    host.Stop(L"TxGcSample1");
    EXPECT_EQ(host.WaitForExit(), 0U);
}

} // namespace
