#include "control/TxSvcSubsystemControlManager.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "config/TxSvcHostConfig.h"
#include "control/ReduceRestart.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;
using Manager = CTxSvcSubsystemControlManager;

namespace
{

constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);
constexpr HRESULT kBusy = static_cast<HRESULT>(0x80070425); // ERROR_SERVICE_CANNOT_ACCEPT_CTRL

/// How one service of the pretended service control manager behaves.
struct FakeService
{
    DWORD openError = 0;
    DWORD controlError = 0; ///< Also of StartServiceW.
    DWORD queryError = 0;
    int pendingQueries =
        0; ///< So many looks at the state find it pending, the one of ControlService included.
};

std::map<std::wstring, FakeService> g_services; ///< Missing ones do not exist.
std::vector<std::wstring> g_calls;
DWORD g_managerError = 0;
int g_opened = 0; ///< Handles opened and not closed.
std::vector<DWORD> g_sleeps;

SC_HANDLE Fail(DWORD error)
{
    ::SetLastError(error);
    return nullptr;
}

SC_HANDLE WINAPI FakeOpenManager(const wchar_t* machine, const wchar_t* database, DWORD access)
{
    EXPECT_TRUE(machine == nullptr && database == nullptr);
    EXPECT_EQ(access, DWORD{SC_MANAGER_ALL_ACCESS});
    if (g_managerError != 0)
    {
        return Fail(g_managerError);
    }
    ++g_opened;
    return reinterpret_cast<SC_HANDLE>(&g_opened);
}

/// The handle is the address of the service's entry, whose key is its name.
SC_HANDLE WINAPI FakeOpenService(SC_HANDLE, const wchar_t* name, DWORD access)
{
    EXPECT_TRUE(access == (SERVICE_STOP | SERVICE_QUERY_STATUS) || access == SERVICE_START);
    const auto found = g_services.find(name);
    if (found == g_services.end())
    {
        return Fail(ERROR_SERVICE_DOES_NOT_EXIST);
    }
    if (found->second.openError != 0)
    {
        return Fail(found->second.openError);
    }
    ++g_opened;
    return reinterpret_cast<SC_HANDLE>(&*found);
}

std::pair<const std::wstring, FakeService>& EntryOf(SC_HANDLE handle)
{
    return *reinterpret_cast<std::pair<const std::wstring, FakeService>*>(handle);
}

BOOL LookAt(FakeService& service, DWORD error, SERVICE_STATUS* status)
{
    if (error != 0)
    {
        ::SetLastError(error);
        return FALSE;
    }
    status->dwCurrentState = service.pendingQueries-- > 0 ? SERVICE_STOP_PENDING : SERVICE_STOPPED;
    return TRUE;
}

BOOL WINAPI FakeControl(SC_HANDLE handle, DWORD control, SERVICE_STATUS* status)
{
    EXPECT_EQ(control, DWORD{SERVICE_CONTROL_STOP});
    EXPECT_TRUE(IsReduceRestartStopping() || g_calls.empty());
    auto& [name, service] = EntryOf(handle);
    g_calls.push_back(name);
    return LookAt(service, service.controlError, status);
}
BOOL WINAPI FakeQuery(SC_HANDLE handle, SERVICE_STATUS* status)
{
    FakeService& service = EntryOf(handle).second;
    return LookAt(service, service.queryError, status);
}
BOOL WINAPI FakeStart(SC_HANDLE handle, DWORD count, const wchar_t** arguments)
{
    EXPECT_TRUE(count == 0 && arguments == nullptr);
    const auto& [name, service] = EntryOf(handle);
    g_calls.push_back(name);
    ::SetLastError(service.controlError);
    return service.controlError == 0;
}
BOOL WINAPI FakeClose(SC_HANDLE)
{
    --g_opened;
    return TRUE;
}
void WINAPI FakeSleep(DWORD milliseconds)
{
    g_sleeps.push_back(milliseconds);
}

class ControlManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_services.clear();
        g_calls.clear();
        g_sleeps.clear();
        g_managerError = 0;
        g_opened = 0;
    }
    void TearDown() override
    {
        CTxSvcHostConfig::ReleaseInstance();
        EXPECT_EQ(g_opened, 0) << "handles left open";
    }

    void SetGroup(const wchar_t* name, const std::wstring& list)
    {
        Basalt::CRegKey group;
        ASSERT_EQ(group.Create(m_root.Key().Get(), name, KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(group.WriteString(L"", list), DWORD{0});
    }
    void RunGroup(const std::wstring& list)
    {
        SetGroup(L"g", list);
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, CTxSvcHostConfig::kRootKey};
    CLogCapture m_log;
    CImportPatch m_patches[7] = {
        {"OpenSCManagerW", &FakeOpenManager},
        {"OpenServiceW", &FakeOpenService},
        {"ControlService", &FakeControl},
        {"QueryServiceStatus", &FakeQuery},
        {"StartServiceW", &FakeStart},
        {"CloseServiceHandle", &FakeClose},
        {"Sleep", &FakeSleep}};
};

TEST_F(ControlManagerTest, StopServiceHasAResultAndALineForEachOutcome)
{
    for (const CImportPatch& patch : m_patches)
    {
        ASSERT_TRUE(patch.IsActive());
    }
    const struct
    {
        const char* name;
        DWORD managerError;
        FakeService service;
        bool exists;
        HRESULT expected;
        std::size_t sleeps;
        DWORD level;
        const wchar_t* line;
    } rows[] = {
        {"stops at once", 0, {}, true, S_OK, 0, 0, nullptr},
        {"is pending once", 0, {0, 0, 0, 1}, true, S_OK, 1, 0, nullptr},
        {"stops at the tenth query", 0, {0, 0, 0, 10}, true, S_OK, 10, 0, nullptr},
        {"stops too late",
         0,
         {0, 0, 0, 11},
         true,
         E_FAIL,
         10,
         LogError,
         L"Failed to QueryServiceStatus s after maximum attempts"},
        {"cannot be queried",
         0,
         {0, 0, ERROR_ACCESS_DENIED, 9},
         true,
         kDenied,
         1,
         LogError,
         L"Failed to QueryServiceStatus s, error code 5"},
        {"does not exist", 0, {}, false, S_OK, 0, 0, nullptr},
        {"cannot be opened",
         0,
         {ERROR_ACCESS_DENIED, 0, 0, 0},
         true,
         kDenied,
         0,
         LogInformation,
         L"Failed to open service:s, error code 5"},
        {"does not run", 0, {0, ERROR_SERVICE_NOT_ACTIVE, 0, 0}, true, S_OK, 0, 0, nullptr},
        {"refuses",
         0,
         {0, ERROR_SERVICE_CANNOT_ACCEPT_CTRL, 0, 0},
         true,
         kBusy,
         0,
         LogInformation,
         L"Failed to stop service:s, error code 1061"},
        {"no manager",
         ERROR_ACCESS_DENIED,
         {},
         true,
         kDenied,
         0,
         LogError,
         L"Open SCManager failed. Error code:5"},
        {"an error that is an HRESULT already",
         0x80010001,
         {},
         true,
         static_cast<HRESULT>(0x80010001),
         0,
         LogError,
         L"Open SCManager failed. Error code:-2147418111"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        SetUp();
        m_log.Clear();
        g_managerError = row.managerError;
        if (row.exists)
        {
            g_services[L"s"] = row.service;
        }

        EXPECT_EQ(Manager::StopService(L"s"), row.expected);
        EXPECT_EQ(g_sleeps, std::vector<DWORD>(row.sleeps, 1000));
        const std::vector<LogLine> lines = m_log.Lines();
        ASSERT_EQ(lines.size(), row.line == nullptr ? 0U : 1U);
        if (row.line != nullptr)
        {
            EXPECT_EQ(lines[0].message, row.line);
            EXPECT_EQ(lines[0].level, row.level);
            EXPECT_EQ(lines[0].function, L"StopService");
            EXPECT_EQ(lines[0].source, L"TxSvcSubsystemControlManager");
        }
        EXPECT_EQ(g_opened, 0);
    }
}

TEST_F(ControlManagerTest, TheTwoBasicServicesAreStoppedLast)
{
    using Names = std::vector<std::wstring>;
    const struct
    {
        std::wstring list;
        Names existing;
        Names stopped;
    } rows[] = {
        {L"a", {L"a"}, {L"a"}},
        {L"a;b", {L"a", L"b", L"txpltsvc", L"txkscsvc"}, {L"a", L"b", L"txpltsvc", L"txkscsvc"}},
        {L"TXKSCSVC;b;TxPltSvc;a",
         {L"a", L"b", L"txpltsvc", L"txkscsvc"},
         {L"b", L"a", L"txpltsvc", L"txkscsvc"}},
        {L"txkscsvc", {L"txkscsvc"}, {L"txkscsvc"}},
        {L"txpltsvc2;xtxkscsvc", {L"txpltsvc2", L"xtxkscsvc"}, {L"txpltsvc2", L"xtxkscsvc"}},
        {L"gone;b", {L"b"}, {L"b"}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.list));
        SetUp();
        RunGroup(row.list);
        for (const std::wstring& name : row.existing)
        {
            g_services[name] = {};
        }

        EXPECT_EQ(Manager::StopServices(false), E_FAIL) << "on purpose, also when all went well";
        EXPECT_EQ(g_calls, row.stopped);
    }
}

TEST_F(ControlManagerTest, TheStopsOutcomesAreCombinedByOr)
{
    RunGroup(L"a;b");
    g_services[L"a"].controlError = 0x1234;
    g_services[L"b"].openError = 0x0002;
    g_services[L"txkscsvc"].openError = 0x0400;

    EXPECT_EQ(
        Manager::StopServices(false),
        static_cast<HRESULT>(0x80004005 | 0x80071234 | 0x80070002 | 0x80070400));
}

TEST_F(ControlManagerTest, StoppingNeedsAConfiguredGroup)
{
    const struct
    {
        const wchar_t* list; ///< Null: the configuration was never read.
        HRESULT expected;
        const wchar_t* line;
    } rows[] = {
        {nullptr, E_FAIL, L"Failed to get group services "},
        {L";;", S_OK, L"There are no services in the group "},
    };
    g_services[L"txpltsvc"] = {};
    for (const auto& row : rows)
    {
        if (row.list != nullptr)
        {
            RunGroup(row.list);
        }
        m_log.Clear();

        EXPECT_EQ(Manager::StopServices(true), row.expected);
        EXPECT_TRUE(g_calls.empty());
        EXPECT_TRUE(IsReduceRestartStopping());
        EXPECT_TRUE(m_log.Has(LogInformation, L"Reduce restart: Calling TxSvHost StopServices"));
        EXPECT_TRUE(m_log.Has(LogError, row.line));
        std::wstring name;
        EXPECT_FALSE(CTxSvcHostConfig::GetInstance().GetGroupName(name)) << "released, whatever the outcome";
    }
}

TEST_F(ControlManagerTest, StartServicesStartsTheCoreGroupAndIgnoresWhatFails)
{
    SetGroup(L"TxCoreSvc", L"a;gone;running;denied;z");
    g_services[L"a"] = {};
    g_services[L"running"].controlError = ERROR_SERVICE_ALREADY_RUNNING;
    g_services[L"denied"].openError = ERROR_ACCESS_DENIED;
    g_services[L"z"] = {};

    EXPECT_EQ(Manager::StartServices(false), E_FAIL);

    EXPECT_EQ(g_calls, (std::vector<std::wstring>{L"a", L"running", L"z"}));
    const std::vector<LogLine> lines = m_log.Lines();
    const auto first = std::find_if(
        lines.begin(), lines.end(), [](const LogLine& line) { return line.function == L"StartServices"; });
    ASSERT_NE(first, lines.end());
    EXPECT_EQ(first->message, L"Reduce restart: Calling TxSvHost StartServices");
    EXPECT_TRUE(m_log.Has(LogInformation, L"Failed to open service:gone, error code 1060"));
    EXPECT_TRUE(m_log.Has(LogInformation, L"Failed to start service:running, error code 1056"));
    EXPECT_TRUE(m_log.Has(LogInformation, L"Failed to open service:denied, error code 5"));
    std::wstring name;
    EXPECT_TRUE(CTxSvcHostConfig::GetInstance().GetGroupName(name)) << "kept";
}

TEST_F(ControlManagerTest, StartServicesReleasesTheConfigurationOnEveryRoad)
{
    const struct
    {
        const char* name;
        const wchar_t* list; ///< Null: no such group.
        bool hasRoot;
        DWORD managerError;
        HRESULT expected;
        const wchar_t* line;
    } rows[] = {
        {"all started", L"a", true, 0, E_FAIL, nullptr},
        {"no manager", L"a", true, ERROR_ACCESS_DENIED, kDenied, L"Open SCManager failed. Error code:5"},
        {"no services", L";", true, 0, S_OK, L"There are no services in the group"},
        {"no group", nullptr, true, 0, E_FAIL, L"Failed to get group services"},
        {"no configuration", nullptr, false, 0, E_FAIL, L"Failed to initialize CTxSvcHostConfig"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        SetUp();
        g_services[L"a"] = {};
        g_managerError = row.managerError;
        m_root.Remove();
        if (row.hasRoot)
        {
            ASSERT_EQ(
                m_root.Key().Create(HKEY_LOCAL_MACHINE, m_root.Path().c_str(), KEY_ALL_ACCESS), DWORD{0});
        }
        if (row.list != nullptr)
        {
            SetGroup(L"TxCoreSvc", row.list);
        }
        m_log.Clear();

        EXPECT_EQ(Manager::StartServices(true), row.expected);
        EXPECT_TRUE(row.line == nullptr || m_log.Has(LogError, row.line));
        EXPECT_EQ(g_calls.size(), row.line == nullptr ? 1U : 0U);
        std::wstring name;
        EXPECT_FALSE(CTxSvcHostConfig::GetInstance().GetGroupName(name));
    }
}

std::vector<int> g_exits;

[[noreturn]] void FakeExit(int code)
{
    g_exits.push_back(code);
    ::ExitThread(7);
}
LPTHREAD_START_ROUTINE g_routine = nullptr;
HANDLE WINAPI
FakeCreateThread(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE routine, void* context, DWORD, DWORD*)
{
    EXPECT_EQ(context, nullptr);
    g_routine = routine;
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

TEST_F(ControlManagerTest, AnUnfinishedStopEndsTheProcessAfterASecond)
{
    const struct
    {
        std::wstring list;
        HRESULT expected;
        bool isForced;
    } rows[] = {{L";", S_OK, false}, {L"a", E_FAIL, true}};
    for (const auto& row : rows)
    {
        g_routine = nullptr;
        g_services[L"a"] = {};
        RunGroup(row.list);
        m_log.Clear();
        DWORD processId = 0;
        {
            const CImportPatch noThread("CreateThread", &FakeCreateThread);
            ASSERT_TRUE(noThread.IsActive());
            Manager manager;

            EXPECT_EQ(manager.TxStopSvcSubsystem(77, &processId), row.expected);
            EXPECT_EQ(manager.TxStopSvcSubsystem(0, nullptr), row.expected);
        }
        EXPECT_EQ(processId, ::GetCurrentProcessId());
        EXPECT_EQ(
            m_log.Count(
                LogInformation,
                L"Reduce restart: StopServices failed, starts a thread to force stop TxSvHost"),
            row.isForced ? 2U : 0U);
        EXPECT_EQ(g_routine, row.isForced ? &Manager::MyTerminateThread : nullptr);
    }
    Manager::WaitForForcedStop(); // Returns: none was begun, since the thread could not be made.

    const CImportPatch exit("exit", &FakeExit);
    ASSERT_TRUE(exit.IsActive());
    const HANDLE thread = ::CreateThread(nullptr, 0, &Manager::MyTerminateThread, nullptr, 0, nullptr);
    ASSERT_EQ(::WaitForSingleObject(thread, 10000), DWORD{WAIT_OBJECT_0});
    ::CloseHandle(thread);

    EXPECT_EQ(g_exits, std::vector<int>{0});
    EXPECT_EQ(g_sleeps, std::vector<DWORD>{1000});
    EXPECT_TRUE(m_log.Has(LogInformation, L"Reduce restart: Enter MyTerminateThread"));
}

HRESULT g_registerResult = S_OK;
std::vector<DWORD> g_revoked;

HRESULT WINAPI FakeRegister(REFCLSID clsid, IUnknown* object, DWORD context, DWORD flags, DWORD* cookie)
{
    EXPECT_TRUE(clsid == CLSID_TxSvcSubsystemControlManager);
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(context, DWORD{CLSCTX_LOCAL_SERVER});
    EXPECT_EQ(flags, DWORD{REGCLS_MULTIPLEUSE});
    *cookie = SUCCEEDED(g_registerResult) ? 42 : 0;
    return g_registerResult;
}
HRESULT WINAPI FakeRevoke(DWORD cookie)
{
    g_revoked.push_back(cookie);
    return S_OK;
}

TEST_F(ControlManagerTest, TheRegistrationIsRevokedOnce)
{
    const CImportPatch registers("CoRegisterClassObject", &FakeRegister);
    const CImportPatch revokes("CoRevokeClassObject", &FakeRevoke);
    ASSERT_TRUE(registers.IsActive() && revokes.IsActive());
    const struct
    {
        HRESULT result;
        DWORD level;
        const wchar_t* line;
        std::vector<DWORD> revoked;
    } rows[] = {
        {S_OK, LogInformation, L"CoRegisterClassObject succeeded", {42}},
        {kDenied, LogError, L"CoRegisterClassObject failed with error 80070005", {}},
    };
    for (const auto& row : rows)
    {
        g_revoked.clear();
        g_registerResult = row.result;
        {
            CoTxSvcSubsystemControlManagerClassFactory factory;
            EXPECT_EQ(factory.RegisterClassObject(), row.result);
            EXPECT_EQ(factory.Revoke(), S_OK);
            EXPECT_EQ(g_revoked, row.revoked);
        }
        EXPECT_EQ(g_revoked, row.revoked) << "not again by the destructor";
        EXPECT_TRUE(m_log.Has(row.level, row.line));
    }
    EXPECT_EQ(
        m_log.Lines().back().function, L"CoTxSvcSubsystemControlManagerClassFactory::RegisterClassObject");
    {
        g_registerResult = S_OK;
        CoTxSvcSubsystemControlManagerClassFactory factory;
        EXPECT_EQ(factory.RegisterClassObject(), S_OK);
    }
    EXPECT_EQ(g_revoked, std::vector<DWORD>{42}) << "by the destructor";
}

TEST_F(ControlManagerTest, TheClassObjectIsNeverCountedAndItsManagersNeverFreed)
{
    CoTxSvcSubsystemControlManagerClassFactory factory;
    auto* const first = static_cast<CGuardedClassObject<1>*>(&factory);
    auto* const second = static_cast<CGuardedClassObject<2>*>(&factory);
    for (ITxSvcClassObject* entry :
         {static_cast<ITxSvcClassObject*>(first), static_cast<ITxSvcClassObject*>(second)})
    {
        void* object = &factory;
        EXPECT_EQ(entry->QueryInterface(IID_ITxSvcSubsystemControlManager, &object), E_NOINTERFACE);
        EXPECT_EQ(object, nullptr);
        EXPECT_EQ(entry->QueryInterface(IID_IUnknown, &object), S_OK);
        EXPECT_EQ(object, first);
        EXPECT_EQ(entry->QueryInterface(IID_ITxSvcClassObject, &object), S_OK);
        EXPECT_EQ(object, first);
        EXPECT_EQ(entry->AddRef(), 2U);
        EXPECT_EQ(entry->Release(), 1U);

        // This test program is not signed.
        object = &factory;
        EXPECT_EQ(entry->CreateObject(IID_ITxSvcSubsystemControlManager, &object), E_ACCESSDENIED);
        EXPECT_EQ(object, &factory) << "nothing else is done";
    }
    EXPECT_TRUE(m_log.Lines().empty());

    void* object = &factory;
    EXPECT_EQ(second->CreateObjectUnguarded(IID_IUnknown, nullptr), E_INVALIDARG);
    EXPECT_EQ(second->CreateObjectUnguarded(IID_ITxSvcClassObject, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    ASSERT_EQ(second->CreateObjectUnguarded(IID_ITxSvcSubsystemControlManager, &object), S_OK);
    auto* const control = static_cast<ITxSvcSubsystemControlManager*>(object);
    EXPECT_EQ(control->QueryInterface(IID_ITxSvcClassObject, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(control->QueryInterface(IID_IUnknown, &object), S_OK);
    EXPECT_EQ(object, control);
    EXPECT_EQ(control->Reserved(), E_NOTIMPL);
    EXPECT_EQ(control->Release(), 1U);
    EXPECT_EQ(control->Release(), 0U);
    EXPECT_EQ(control->AddRef(), 1U) << "still there";
    delete static_cast<Manager*>(control);
}

} // namespace
