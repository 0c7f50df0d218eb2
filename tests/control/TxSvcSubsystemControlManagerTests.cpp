#include "control/TxSvcSubsystemControlManager.h"

#include <windows.h>
#include <psapi.h>

#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Owned.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "control/GroupServices.h"
#include "control/ProcessEnd.h"
#include "control/TxSvcSubsystemControlManagerClassFactory.h"
#include "logging/logger/LoggingIf.h"
#include "process/ReduceRestart.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;
using Manager = CTxSvcSubsystemControlManager;

namespace
{

using Texts = std::vector<std::wstring>;

constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

/// How one service of the pretended service control manager behaves.
struct FakeService
{
    DWORD openError = 0;
    DWORD controlError = 0; ///< Also of StartServiceW.
    DWORD queryError = 0;
    int pending = 0; ///< So many looks at the state find it pending, that of ControlService included.
};
using Services = std::map<std::wstring, FakeService>;

/// The handle of a service is the address of its entry.
struct FakeManager
{
    Services services{}; ///< Missing ones do not exist.
    DWORD error = 0;
    DWORD access = SERVICE_STOP | SERVICE_QUERY_STATUS; ///< What a service must be opened for.
    Texts calls{};
    std::vector<DWORD> sleeps{};
    bool wasFlagSet = true; ///< Before each stop.
    int opened = 0;         ///< Handles opened and not closed.
} g_scm;

SC_HANDLE Open(DWORD error, void* object)
{
    ::SetLastError(error);
    g_scm.opened += error == 0 ? 1 : 0;
    return error == 0 ? static_cast<SC_HANDLE>(object) : nullptr;
}
SC_HANDLE WINAPI FakeOpenManager(const wchar_t* machine, const wchar_t* database, DWORD access)
{
    EXPECT_TRUE(machine == nullptr && database == nullptr && access == SC_MANAGER_ALL_ACCESS);
    return Open(g_scm.error, &g_scm);
}
SC_HANDLE WINAPI FakeOpenService(SC_HANDLE, const wchar_t* name, DWORD access)
{
    EXPECT_EQ(access, g_scm.access);
    const auto found = g_scm.services.find(name);
    return found == g_scm.services.end() ? Open(ERROR_SERVICE_DOES_NOT_EXIST, nullptr)
                                         : Open(found->second.openError, &*found);
}
BOOL Answer(SC_HANDLE handle, DWORD FakeService::* error, SERVICE_STATUS* status, bool isCall)
{
    auto& [name, service] = *reinterpret_cast<Services::value_type*>(handle);
    if (isCall)
    {
        g_scm.calls.push_back(name);
    }
    if (status != nullptr)
    {
        status->dwCurrentState = service.pending-- > 0 ? SERVICE_STOP_PENDING : SERVICE_STOPPED;
    }
    ::SetLastError(service.*error);
    return service.*error == 0;
}
BOOL WINAPI FakeControl(SC_HANDLE handle, DWORD control, SERVICE_STATUS* status)
{
    EXPECT_EQ(control, DWORD{SERVICE_CONTROL_STOP});
    g_scm.wasFlagSet = g_scm.wasFlagSet && IsReduceRestartStopping();
    return Answer(handle, &FakeService::controlError, status, true);
}
BOOL WINAPI FakeStart(SC_HANDLE handle, DWORD count, const wchar_t** arguments)
{
    EXPECT_TRUE(count == 0 && arguments == nullptr);
    return Answer(handle, &FakeService::controlError, nullptr, true);
}
BOOL WINAPI FakeQuery(SC_HANDLE handle, SERVICE_STATUS* status)
{
    return Answer(handle, &FakeService::queryError, status, false);
}
BOOL WINAPI FakeClose(SC_HANDLE)
{
    return --g_scm.opened >= 0;
}
void WINAPI FakeSleep(DWORD milliseconds)
{
    g_scm.sleeps.push_back(milliseconds);
}

class ControlManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_scm = {};
        m_log.Clear();
        CTxSvcHostConfig::ReleaseInstance();
        for (const CImportPatch& patch : m_patches)
        {
            ASSERT_TRUE(patch.IsActive());
        }
    }
    void TearDown() override
    {
        CTxSvcHostConfig::ReleaseInstance();
        EXPECT_EQ(g_scm.opened, 0) << "handles left open";
    }

    void SetGroup(const wchar_t* name, const std::wstring& list)
    {
        Basalt::CRegKey group;
        ASSERT_EQ(group.Create(m_root.Key().Get(), name, KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(group.WriteString(L"", list), DWORD{0});
    }
    /// What this component has logged since the last call, under one function name: "level message".
    Texts Lines(const wchar_t* function)
    {
        Texts own;
        for (const LogLine& line : m_log.Lines())
        {
            if (line.source == L"TxSvcSubsystemControlManager")
            {
                EXPECT_EQ(line.function, function);
                own.push_back(std::to_wstring(line.level) + L" " + line.message);
            }
        }
        m_log.Clear();
        return own;
    }
    static bool HasConfig()
    {
        std::wstring name;
        return CTxSvcHostConfig::GetInstance().GetGroupName(name);
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CLogCapture m_log;
    CImportPatch m_patches[6] = {
        {"OpenSCManagerW", &FakeOpenManager},
        {"OpenServiceW", &FakeOpenService},
        {"ControlService", &FakeControl},
        {"QueryServiceStatus", &FakeQuery},
        {"StartServiceW", &FakeStart},
        {"CloseServiceHandle", &FakeClose}};
    std::optional<CImportPatch> m_sleep{std::in_place, "Sleep", &FakeSleep};
};

TEST_F(ControlManagerTest, StopServiceHasAResultAndALineForEachOutcome)
{
    constexpr HRESULT kOdd = static_cast<HRESULT>(0x80010001);
    const struct
    {
        const char* name;
        FakeService service;
        HRESULT expected;
        std::size_t sleeps = 0;
        Texts lines;
        DWORD managerError = 0;
        bool exists = true;
    } rows[] = {
        {"stops at once", {}, S_OK, 0, {}},
        {"is pending once", {0, 0, 0, 1}, S_OK, 1, {}},
        {"stops at the tenth query", {0, 0, 0, 10}, S_OK, 10, {}},
        {"late", {0, 0, 0, 11}, E_FAIL, 10, {L"4 Failed to QueryServiceStatus s after maximum attempts"}},
        {"no query", {0, 0, 5, 9}, kDenied, 1, {L"4 Failed to QueryServiceStatus s, error code 5"}},
        {"does not exist", {}, S_OK, 0, {}, 0, false},
        {"no access", {5}, kDenied, 0, {L"3 Failed to open service:s, error code 5"}},
        {"does not run", {0, ERROR_SERVICE_NOT_ACTIVE}, S_OK, 0, {}},
        {"refuses",
         {0, 1061},
         static_cast<HRESULT>(0x80070425),
         0,
         {L"3 Failed to stop service:s, error code 1061"}},
        {"no manager", {}, kDenied, 0, {L"4 Open SCManager failed. Error code:5"}, 5},
        {"an HRESULT", {}, kOdd, 0, {L"4 Open SCManager failed. Error code:-2147418111"}, 0x80010001},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        SetUp();
        g_scm = {row.exists ? Services{{L"s", row.service}} : Services{}, row.managerError};

        EXPECT_EQ(::StopService(L"s"), row.expected);
        EXPECT_EQ(g_scm.sleeps, std::vector<DWORD>(row.sleeps, 1000));
        EXPECT_EQ(Lines(L"StopService"), row.lines);
        EXPECT_EQ(g_scm.opened, 0);
    }
}

TEST_F(ControlManagerTest, APollWaitsASecondOfRealTime)
{
    m_sleep.reset();
    g_scm.services[L"s"] = {0, 0, 0, 1};
    const ULONGLONG begin = ::GetTickCount64();

    EXPECT_EQ(::StopService(L"s"), S_OK);
    EXPECT_GE(::GetTickCount64() - begin, 950U);
}

TEST_F(ControlManagerTest, StopServicesStopsTheTwoBasicServicesLastAndOrsTheOutcomes)
{
    const Services both = {{L"txpltsvc", {}}, {L"txkscsvc", {}}};
    const struct
    {
        const wchar_t* list; ///< Null: the configuration was never read.
        Services services;
        Texts stopped;
        HRESULT expected = E_FAIL; ///< On purpose, also when all went well.
        const wchar_t* line = nullptr;
    } rows[] = {
        {L"a", {{L"a", {}}}, {L"a"}}, // First, while the flag is not set yet.
        {nullptr, both, {}, E_FAIL, L"4 Failed to get group services "},
        {L";;", both, {}, S_OK, L"4 There are no services in the group "},
        {L"a", both, {L"txpltsvc", L"txkscsvc"}},
        {L"TXKSCSVC;TxPltSvc", both, {L"txpltsvc", L"txkscsvc"}},
        {L"txkscsvc;b;a", {{L"a", {}}, {L"b", {}}, {L"txkscsvc", {}}}, {L"b", L"a", L"txkscsvc"}},
        {L"txpltsvc2;xtxkscsvc", {{L"txpltsvc2", {}}, {L"xtxkscsvc", {}}}, {L"txpltsvc2", L"xtxkscsvc"}},
        {L"a;b",
         {{L"a", {0, 0x1234}}, {L"b", {2}}, {L"txkscsvc", {0x400}}},
         {L"a"},
         static_cast<HRESULT>(0x80004005 | 0x80071234 | 0x80070002 | 0x80070400)},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(&row - rows));
        SetUp();
        if (row.list != nullptr)
        {
            SetGroup(L"g", row.list);
        }
        for (const bool releaseConfig : {false, true})
        {
            ASSERT_TRUE(row.list == nullptr || CTxSvcHostConfig::GetInstance().Init(L"g"));
            g_scm = {row.services};
            m_log.Clear();

            EXPECT_EQ(::StopServices(releaseConfig), row.expected);
            EXPECT_EQ(g_scm.calls, row.stopped);
            EXPECT_TRUE(IsReduceRestartStopping() && g_scm.wasFlagSet);
            if (row.stopped.empty())
            {
                const Texts lines = {L"3 Reduce restart: Calling TxSvHost StopServices", row.line};
                EXPECT_EQ(Lines(L"StopServices"), lines);
            }
            EXPECT_EQ(HasConfig(), row.list != nullptr && !releaseConfig);
        }
    }
}

TEST_F(ControlManagerTest, StartServicesStartsTheCoreGroupAndIgnoresWhatFails)
{
    constexpr wchar_t kBegin[] = L"3 Reduce restart: Calling TxSvHost StartServices";
    constexpr wchar_t kAll[] = L"a;gone;running;denied;z";
    const struct
    {
        const wchar_t* list; ///< Null: no such group.
        bool hasRoot;
        DWORD managerError;
        HRESULT expected;
        Texts started;
        Texts lines;
    } rows[] = {
        {kAll,
         true,
         0,
         E_FAIL, // On purpose.
         {L"a", L"running", L"z"},
         {kBegin,
          L"3 Failed to open service:gone, error code 1060",
          L"3 Failed to start service:running, error code 1056",
          L"3 Failed to open service:denied, error code 5"}},
        {kAll, true, 5, kDenied, {}, {kBegin, L"4 Open SCManager failed. Error code:5"}},
        {L";", true, 0, S_OK, {}, {kBegin, L"4 There are no services in the group"}},
        {nullptr, true, 0, E_FAIL, {}, {kBegin, L"4 Failed to get group services"}},
        {nullptr, false, 0, E_FAIL, {}, {kBegin, L"4 Failed to initialize CTxSvcHostConfig"}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.lines));
        m_root.Remove();
        ASSERT_TRUE(
            !row.hasRoot ||
            m_root.Key().Create(HKEY_LOCAL_MACHINE, m_root.Path().c_str(), KEY_ALL_ACCESS) == 0);
        if (row.list != nullptr)
        {
            SetGroup(L"TxCoreSvc", row.list);
        }
        for (const bool releaseConfig : {false, true})
        {
            SetUp();
            const Services services = {{L"a", {}}, {L"running", {0, 1056}}, {L"denied", {5}}, {L"z", {}}};
            g_scm = {services, row.managerError, SERVICE_START};

            EXPECT_EQ(::StartServices(releaseConfig), row.expected);
            EXPECT_EQ(g_scm.calls, row.started);
            EXPECT_EQ(Lines(L"StartServices"), row.lines);
            EXPECT_EQ(HasConfig(), row.hasRoot && !releaseConfig);
        }
    }
}

LPTHREAD_START_ROUTINE g_routine = nullptr;
HANDLE WINAPI
FakeCreateThread(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE routine, void* context, DWORD, DWORD*)
{
    EXPECT_EQ(context, nullptr);
    g_routine = routine;
    return nullptr;
}

/// Runs the routine of the forced stop up to its exit.
void RunTerminateThread()
{
    const Basalt::CHandle thread(::CreateThread(nullptr, 0, &::MyTerminateThread, nullptr, 0, nullptr));
    DWORD exitCode = 0;
    EXPECT_EQ(::WaitForSingleObject(thread.Get(), 10000), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(::GetExitCodeThread(thread.Get(), &exitCode) && exitCode == 7);
}
void FakeExit(int code)
{
    ::ExitThread(code == 0 ? 7 : 8);
}

TEST_F(ControlManagerTest, AnUnfinishedStopEndsTheProcessAfterASecond)
{
    constexpr wchar_t kForced[] =
        L"Reduce restart: StopServices failed, starts a thread to force stop TxSvHost";
    const CImportPatch exit("exit", &FakeExit);
    Manager manager;
    for (const bool isForced : {false, true})
    {
        const CImportPatch noThread("CreateThread", &FakeCreateThread);
        ASSERT_TRUE(exit.IsActive() && noThread.IsActive());
        SetGroup(L"g", isForced ? L"a" : L";");
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
        DWORD processId = 0;

        EXPECT_EQ(manager.TxStopSvcSubsystem(77, &processId), isForced ? E_FAIL : S_OK);
        EXPECT_EQ(manager.TxStopSvcSubsystem(0, nullptr), isForced ? E_FAIL : S_OK);
        EXPECT_EQ(processId, ::GetCurrentProcessId());
        EXPECT_EQ(m_log.Count(LogInformation, kForced), isForced ? 2U : 0U);
        EXPECT_EQ(g_routine, isForced ? &::MyTerminateThread : nullptr);
    }
    RunTerminateThread();
    EXPECT_EQ(g_scm.sleeps, std::vector<DWORD>{1000});
    EXPECT_TRUE(m_log.Has(LogInformation, L"Reduce restart: Enter MyTerminateThread"));
}

HRESULT g_registerResult = S_OK;
std::vector<DWORD> g_revoked;

HRESULT WINAPI FakeRegister(REFCLSID clsid, IUnknown* object, DWORD context, DWORD flags, DWORD* cookie)
{
    EXPECT_TRUE(clsid == CLSID_TxSvcSubsystemControlManager && object != nullptr);
    EXPECT_TRUE(context == CLSCTX_LOCAL_SERVER && flags == REGCLS_MULTIPLEUSE);
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
    using Factory = CoTxSvcSubsystemControlManagerClassFactory;
    const CImportPatch registers("CoRegisterClassObject", &FakeRegister);
    const CImportPatch revokes("CoRevokeClassObject", &FakeRevoke);
    ASSERT_TRUE(registers.IsActive() && revokes.IsActive());
    const struct
    {
        HRESULT result;
        bool isRevoked; ///< Before the destructor does it.
        std::vector<DWORD> revoked;
        Texts lines;
    } rows[] = {
        {S_OK, true, {42}, {L"3 CoRegisterClassObject succeeded"}},
        {S_OK, false, {42}, {L"3 CoRegisterClassObject succeeded"}},
        {kDenied, true, {}, {L"4 CoRegisterClassObject failed with error 80070005"}},
    };
    for (const auto& row : rows)
    {
        g_revoked.clear();
        g_registerResult = row.result;
        {
            Factory factory;
            EXPECT_EQ(factory.RegisterClassObject(), row.result);
            EXPECT_TRUE(!row.isRevoked || factory.Revoke() == S_OK);
            EXPECT_EQ(g_revoked, row.isRevoked ? row.revoked : std::vector<DWORD>());
        }
        EXPECT_EQ(g_revoked, row.revoked);
        EXPECT_EQ(Lines(L"CoTxSvcSubsystemControlManagerClassFactory::RegisterClassObject"), row.lines);
    }
}

TEST_F(ControlManagerTest, TheClassObjectIsNeverCountedAndItsManagersNeverFreed)
{
    CoTxSvcSubsystemControlManagerClassFactory factory;
    auto* const first = static_cast<CGuardedClassObject<1>*>(&factory);
    auto* const second = static_cast<CGuardedClassObject<2>*>(&factory);
    for (ITxSvcClassObject* entry : std::initializer_list<ITxSvcClassObject*>{first, second})
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
    PROCESS_MEMORY_COUNTERS before{};
    PROCESS_MEMORY_COUNTERS after{};
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &before, sizeof(before));
    for (int i = 0; i < 200000; ++i)
    {
        ASSERT_EQ(second->CreateObjectUnguarded(IID_ITxSvcClassObject, &object), E_NOINTERFACE);
        ASSERT_EQ(object, nullptr);
    }
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &after, sizeof(after));
    EXPECT_LT(after.PagefileUsage, before.PagefileUsage + SIZE_T{1024} * 1024) << "16 bytes each and more";
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

TEST_F(ControlManagerTest, TheEndOfTheProcessWaitsForRunningCallsAndRefusesFurtherOnes)
{
    const CImportPatch exit("exit", &FakeExit);
    SetGroup(L"g", L";");
    ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
    Manager manager;
    // A caller that is just being checked.
    static const Basalt::CHandle s_checked(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    static const Basalt::CHandle s_goOn(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::thread caller([] {
        static CoTxSvcSubsystemControlManagerClassFactory s_factory;
        const CImportPatch slow(
            "K32EnumProcessModules", +[](HANDLE, HMODULE*, DWORD, DWORD*) -> BOOL {
                ::SetEvent(s_checked.Get());
                return ::WaitForSingleObject(s_goOn.Get(), 10000) !=
                       WAIT_OBJECT_0; // Fails: nobody is trusted.
            });
        void* object = nullptr;
        EXPECT_TRUE(slow.IsActive());
        auto* const entry = static_cast<CGuardedClassObject<1>*>(&s_factory);
        EXPECT_EQ(entry->CreateObject(IID_IUnknown, &object), E_ACCESSDENIED);
        while (entry->CreateObject(IID_IUnknown, &object) != CO_E_SERVER_STOPPING)
        {
        }
    });
    ::WaitForSingleObject(s_checked.Get(), 10000);
    static std::atomic<bool> s_isClosed = false;
    std::thread closer([] {
        ::CloseCalls(); // For the life of this process.
        s_isClosed = true;
    });
    while (manager.TxStopSvcSubsystem(0, nullptr) != E_FAIL)
    {
    }
    EXPECT_FALSE(s_isClosed);
    ::SetEvent(s_goOn.Get());
    caller.join();
    closer.join();

    m_log.Clear();
    g_scm.sleeps.clear();
    DWORD processId = 0;
    EXPECT_EQ(manager.TxStopSvcSubsystem(0, &processId), E_FAIL);
    EXPECT_EQ(processId, ::GetCurrentProcessId());
    EXPECT_TRUE(m_log.Lines().empty());
    RunTerminateThread();
    EXPECT_EQ(g_scm.sleeps, (std::vector<DWORD>{1000, 5000})) << "the main thread comes first";
}

} // namespace
