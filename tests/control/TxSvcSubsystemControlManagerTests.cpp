#include "control/TxSvcSubsystemControlManager.h"

#include <windows.h>

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "base/Owned.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "control/GroupServices.h"
#include "control/ProcessEnd.h"
#include "control/TxSvcSubsystemControlManagerClassFactory.h"
#include "process/ReduceRestart.h"
#include "support/FakeScm.h"
#include "support/LogCapture.h"
#include "support/NoMemory.h"
#include "support/TestKey.h"

using Manager = CTxSvcSubsystemControlManager;
using Service = CFakeScm::Service;
using Names = std::vector<std::wstring>;

namespace
{

constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

/// So many looks find the service pending, that of ControlService included.
Service Pending(std::size_t looks, DWORD queryError = 0)
{
    Service service{.queryError = queryError};
    service.states.insert(service.states.begin(), looks, CFakeScm::State(SERVICE_STOP_PENDING));
    return service;
}

std::wstring g_events; ///< The numbers of those that went to the event log.
const Basalt::CHandle g_isWritten(::CreateEventW(nullptr, FALSE, FALSE, nullptr));

struct ControlManagerTest : ::testing::Test
{
    ControlManagerTest()
    {
        g_events.clear();
        ::ResetEvent(g_isWritten.Get());
    }
    void TearDown() override
    {
        CTxSvcHostConfig::ReleaseInstance();
        EXPECT_EQ(m_scm.opened, 0) << "handles left open";
    }

    /// What this component has logged under one name since the last call, each with its level.
    std::wstring Log(const wchar_t* function)
    {
        std::wstring text;
        for (const LogLine& line : m_log.Lines())
        {
            const bool isOwn = line.source == L"TxSvcSubsystemControlManager" && line.function == function;
            text += isOwn ? std::to_wstring(line.level) + L" " + line.message + L";" : L"";
        }
        m_log.Clear();
        return text;
    }
    static bool HasConfig()
    {
        std::wstring name;
        return CTxSvcHostConfig::GetInstance().GetGroupName(name);
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CFakeScm m_scm;
    CLogCapture m_log;
    CImportPatch m_events{"ReportEventW", +[](HANDLE, WORD, WORD, DWORD id) {
                              g_events += std::to_wstring(id & 0xFFFF) + L" ";
                              return ::SetEvent(g_isWritten.Get());
                          }};
};

TEST_F(ControlManagerTest, StopServiceHasAResultAndALineForEachOutcome)
{
    constexpr HRESULT kRefused = static_cast<HRESULT>(0x80070425);
    const struct
    {
        const char* name;
        Service service;
        HRESULT expected = S_OK;
        std::size_t seconds = 0;
        const wchar_t* line = L"";
    } rows[] = {
        {"stops at once", {}},
        {"stops at the tenth query", Pending(10), S_OK, 10},
        {"late", Pending(11), E_FAIL, 10, L"4 Failed to QueryServiceStatus s after maximum attempts;"},
        {"no query", Pending(9, 5), kDenied, 1, L"4 Failed to QueryServiceStatus s, error code 5;"},
        {"does not exist", {.openError = ERROR_SERVICE_DOES_NOT_EXIST}},
        {"no access", {.openError = 5}, kDenied, 0, L"3 Failed to open service:s, error code 5;"},
        {"does not run", {.errors = {ERROR_SERVICE_NOT_ACTIVE}}},
        {"refuses", {.errors = {1061}}, kRefused, 0, L"3 Failed to stop service:s, error code 1061;"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        m_scm.services = {{L"s", row.service}};
        m_scm.sleeps.clear();

        EXPECT_EQ(::StopService(L"s"), row.expected);
        EXPECT_EQ(m_scm.sleeps, std::vector<DWORD>(row.seconds, 1000));
        EXPECT_EQ(Log(L"StopService"), row.line);
    }
    EXPECT_EQ(m_scm.managerAccess, DWORD{SC_MANAGER_ALL_ACCESS});
    EXPECT_EQ(m_scm.serviceAccess, DWORD{SERVICE_STOP | SERVICE_QUERY_STATUS});
    m_scm.error = 5;
    EXPECT_EQ(::StopService(L"s"), kDenied);
    EXPECT_EQ(Log(L"StopService"), L"4 Open SCManager failed. Error code:5;");
}

TEST_F(ControlManagerTest, AStopStopsTheTwoBasicServicesLastAndReportsAFailureWhateverTheyDo)
{
    constexpr HRESULT kOred = static_cast<HRESULT>(0x80004005 | 0x80071234 | 0x80070002);
    const Names both = {L"txpltsvc", L"txkscsvc"};
    const struct
    {
        const wchar_t* list;
        Names stopped;
        HRESULT expected;
        const wchar_t* line = L"";
    } rows[] = {
        {L";;", {}, S_OK, L"4 There are no services in the group ;"},
        {nullptr, {}, E_FAIL, L"4 Failed to get group services ;"},
        {L"b;TXKSCSVC;a;TxPltSvc", {L"b", L"a", both[0], both[1]}, E_FAIL},
        {L"txpltsvc2;xtxkscsvc", {L"txpltsvc2", L"xtxkscsvc", both[0], both[1]}, E_FAIL},
        {L"odd;closed;b", {L"odd", L"b", both[0], both[1]}, kOred},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.stopped));
        m_scm.services = {{L"odd", {.errors = {0x1234}}}, {L"closed", {.openError = 2}}};
        for (const wchar_t* name : {L"a", L"b", L"txpltsvc", L"txkscsvc", L"txpltsvc2", L"xtxkscsvc"})
        {
            m_scm.services[name] = {};
        }
        m_scm.calls.clear();
        CTestKey group(HKEY_LOCAL_MACHINE, m_root.Path() + L"\\g");
        ASSERT_TRUE(row.list == nullptr || group.Key().WriteString(L"", row.list) == 0);
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
        m_log.Clear();

        EXPECT_EQ(::StopServices(&row == rows), row.expected);
        EXPECT_EQ(m_scm.calls, row.stopped);
        EXPECT_EQ(
            Log(L"StopServices"),
            std::wstring(L"3 Reduce restart: Calling TxSvHost StopServices;") + row.line);
        EXPECT_EQ(HasConfig(), &row != rows);
    }
    EXPECT_TRUE(IsReduceRestartStopping());
}

TEST_F(ControlManagerTest, TheClassObjectIsNeverCountedAndItsManagersNeverFreed)
{
    CoTxSvcSubsystemControlManagerClassFactory factory;
    auto* const first = static_cast<CGuardedClassObject<1>*>(&factory);
    auto* const second = static_cast<CGuardedClassObject<2>*>(&factory);
    void* object = nullptr;
    EXPECT_TRUE(second->QueryInterface(IID_IUnknown, &object) == S_OK && object == first);
    EXPECT_TRUE(second->QueryInterface(IID_ITxSvcClassObject, &object) == S_OK && object == first);
    EXPECT_TRUE(first->AddRef() == 2 && first->Release() == 1);
    for (ITxSvcClassObject* entry : std::initializer_list<ITxSvcClassObject*>{first, second})
    {
        EXPECT_EQ(entry->CreateObject(IID_ITxSvcSubsystemControlManager, &object), E_ACCESSDENIED);
        EXPECT_EQ(object, first) << "this test program is not signed, and nothing else is done";
    }
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_EQ(g_events, L"4 ") << "not for each caller";
    EXPECT_EQ(first->QueryInterface(IID_ITxSvcSubsystemControlManager, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);

    EXPECT_EQ(first->CreateObjectUnguarded(IID_IUnknown, nullptr), E_INVALIDARG);
    {
        const CNoMemory none;
        EXPECT_EQ(first->CreateObjectUnguarded(IID_IUnknown, &object), E_OUTOFMEMORY);
    }
    object = first;
    EXPECT_EQ(first->CreateObjectUnguarded(IID_ITxSvcClassObject, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    ASSERT_EQ(first->CreateObjectUnguarded(IID_ITxSvcSubsystemControlManager, &object), S_OK);
    auto* const control = static_cast<ITxSvcSubsystemControlManager*>(object);
    EXPECT_TRUE(control->QueryInterface(IID_IUnknown, &object) == S_OK && object == control);
    EXPECT_TRUE(control->Release() == 1 && control->Release() == 0);
    EXPECT_TRUE(control->AddRef() == 1 && control->Reserved() == E_NOTIMPL) << "still there";
    delete static_cast<Manager*>(control);
}

TEST_F(ControlManagerTest, WhatTheSystemRefusesIsLogged)
{
    const CImportPatch noClass(
        "CoRegisterClassObject", +[](REFCLSID, IUnknown*, DWORD context, DWORD flags, DWORD*) -> HRESULT {
            return context == CLSCTX_LOCAL_SERVER && flags == REGCLS_MULTIPLEUSE ? kDenied : E_FAIL;
        });
    const CImportPatch noThread(
        "CreateThread", +[]() -> HANDLE {
            ::SetLastError(8);
            return nullptr;
        });
    CoTxSvcSubsystemControlManagerClassFactory factory;
    EXPECT_EQ(factory.RegisterClassObject(), kDenied);
    EXPECT_EQ(
        Log(L"CoTxSvcSubsystemControlManagerClassFactory::RegisterClassObject"),
        L"4 CoRegisterClassObject failed with error 80070005;");
    EXPECT_EQ(Manager().TxStopSvcSubsystem(0, nullptr), E_FAIL);
    EXPECT_EQ(
        Log(L"CTxSvcSubsystemControlManager::TxStopSvcSubsystem"),
        L"3 Reduce restart: StopServices failed, starts a thread to force stop TxSvHost;4 Failed to start "
        L"the thread that ends the process, error code 8;");
    EXPECT_EQ(::WaitForSingleObject(g_isWritten.Get(), 30000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(g_events, L"5 ");

    CTestKey core(HKEY_LOCAL_MACHINE, m_root.Path() + L"\\TxCoreSvc");
    ASSERT_EQ(core.Key().WriteString(L"", L"a"), 0U);
    m_scm.error = 5;
    EXPECT_EQ(::StartServices(true), kDenied);
    EXPECT_EQ(
        Log(L"StartServices"),
        L"3 Reduce restart: Calling TxSvHost StartServices;4 Open SCManager failed. Error code:5;");
    m_scm.error = 0;
    m_scm.services = {{L"a", {}}};
    EXPECT_EQ(::StartServices(false), E_FAIL) << "although all went well";
    EXPECT_TRUE(
        m_scm.managerAccess == SC_MANAGER_ALL_ACCESS && m_scm.serviceAccess == SERVICE_START && HasConfig());
}

/// The last test: what is closed stays closed.
TEST_F(ControlManagerTest, TheEndOfTheProcessWaitsForRunningCallsAndRefusesFurtherOnes)
{
    static const Basalt::CHandle s_isReached(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    static const Basalt::CHandle s_goOn(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    static CoTxSvcSubsystemControlManagerClassFactory s_factory;
    constexpr auto create = [] {
        void* object = &s_factory;
        const HRESULT result =
            static_cast<CGuardedClassObject<1>&>(s_factory).CreateObject(IID_IUnknown, &object);
        EXPECT_EQ(object == nullptr, result == CO_E_SERVER_STOPPING);
        return result;
    };
    const CImportPatch slow(
        "K32EnumProcessModules",
        +[](HANDLE, HMODULE*, DWORD, DWORD*) -> BOOL { // Where the caller is checked.
            if (::WaitForSingleObject(s_isReached.Get(), 0) != WAIT_OBJECT_0)
            {
                ::SetEvent(s_isReached.Get());
                ::WaitForSingleObject(s_goOn.Get(), 30000);
            }
            return FALSE;
        });
    std::thread running([&create] { EXPECT_EQ(create(), E_ACCESSDENIED); });
    ::WaitForSingleObject(s_isReached.Get(), 30000);
    std::atomic<bool> isClosed = false;
    std::thread closer([&isClosed] {
        ::CloseCalls();
        isClosed = true;
    });
    while (create() != CO_E_SERVER_STOPPING)
    {
    }
    EXPECT_FALSE(isClosed) << "the first call still runs";
    ::SetEvent(s_goOn.Get());
    running.join();
    closer.join();

    m_scm.sleeps.clear();
    DWORD processId = 0;
    EXPECT_EQ(Manager().TxStopSvcSubsystem(0, &processId), E_FAIL);
    EXPECT_EQ(processId, ::GetCurrentProcessId());
    EXPECT_TRUE(m_log.Lines().empty());
    ::LetAnswerLeave();
    const CImportPatch exit("exit", +[](int code) { ::ExitThread(code == 0 ? 7 : 8); });
    const Basalt::CHandle end(::CreateThread(nullptr, 0, &::MyTerminateThread, nullptr, 0, nullptr));
    DWORD exitCode = 0;
    EXPECT_EQ(::WaitForSingleObject(end.Get(), 30000), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(::GetExitCodeThread(end.Get(), &exitCode) && exitCode == 7);
    EXPECT_EQ(m_scm.sleeps, (std::vector<DWORD>{1000, 1000, 5000})) << "the main thread comes first";
}

} // namespace
