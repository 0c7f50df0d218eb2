#include "proxy/TxSvcHostProxy.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Owned.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "contract/WorkingSetEvent.h"
#include "process/ReduceRestart.h"
#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/NoMemory.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

using Events = std::vector<std::string>;

constexpr wchar_t kGroup[] = L"TxProxyGroup";
constexpr wchar_t kClsid[] = L"{7A1E5B0C-93D4-4E0F-8C57-2B6D1F0A9E34}";
constexpr wchar_t kModulePath[] = L"C:\\TxTest\\subsystem.dll";
const HMODULE kModule = reinterpret_cast<HMODULE>(0x7E570000);

enum class Behaviour
{
    Good,
    FailedResult,
    NullObject,
    Exception,
};

// What the hosted code does at each step, and what was seen of it. Cleared by SetUp.
struct Module
{
    Behaviour load;
    Behaviour entryPoint;
    Behaviour classObject;
    Behaviour createObject;
    Behaviour run;
    Behaviour release;
    DWORD result;
    void (*whileRunning)();
} g_module;
struct
{
    std::vector<std::wstring> arguments;
    std::vector<SERVICE_STATUS> reports;
    std::vector<std::string> events; ///< in their order
    int liveObjects;
} g_seen;

HRESULT Perform(Behaviour behaviour)
{
    if (behaviour == Behaviour::Exception)
    {
        throw 5;
    }
    return behaviour == Behaviour::FailedResult ? E_NOINTERFACE : S_OK;
}

/// What a creating call of the hosted code gives.
template <typename Object>
HRESULT Create(Behaviour behaviour, void** object)
{
    if (behaviour == Behaviour::Good)
    {
        *object = new Object;
    }
    return Perform(behaviour);
}

template <typename Interface>
class CCounted : public Interface
{
public:
    CCounted() { ++g_seen.liveObjects; }
    virtual ~CCounted() = default;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        --g_seen.liveObjects;
        delete this;
        Perform(g_module.release);
        return 0;
    }
};

class CFakeSubsystem final : public CCounted<ITxSvcSubsystem>
{
public:
    ~CFakeSubsystem() override { g_seen.events.emplace_back("release"); }
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        g_seen.events.emplace_back("run");
        EXPECT_EQ(*result, 0U);
        g_seen.arguments.assign(argv, argv + argc);
        EXPECT_EQ(::GetThreadPriority(::GetCurrentThread()), THREAD_PRIORITY_ABOVE_NORMAL);
        *result = g_module.result;
        const Behaviour behaviour = g_module.run;
        if (const auto hook = std::exchange(g_module.whileRunning, nullptr))
        {
            hook();
        }
        return Perform(behaviour);
    }
};

class CFakeClassObject final : public CCounted<ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        EXPECT_EQ(riid, IID_ITxSvcSubsystem);
        return Create<CFakeSubsystem>(g_module.createObject, object);
    }
};

HRESULT STDAPICALLTYPE FakeDllGetClassObject(REFCLSID /*clsid*/, REFIID riid, void** object)
{
    EXPECT_EQ(riid, IID_ITxSvcClassObject);
    return Create<CFakeClassObject>(g_module.classObject, object);
}

HMODULE WINAPI FakeLoadLibrary(const wchar_t* path)
{
    EXPECT_STREQ(path, kModulePath);
    return g_module.load == Behaviour::Good ? kModule : nullptr;
}
FARPROC WINAPI FakeGetProcAddress(HMODULE module, const char* name)
{
    EXPECT_EQ(module, kModule);
    EXPECT_STREQ(name, "DllGetClassObject");
    const auto entryPoint = reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FakeDllGetClassObject));
    return g_module.entryPoint == Behaviour::Good ? entryPoint : nullptr;
}
BOOL WINAPI FakeFreeLibrary(HMODULE module)
{
    EXPECT_EQ(module, kModule);
    g_seen.events.emplace_back("free");
    return TRUE;
}
void WINAPI FakeSleep(DWORD milliseconds)
{
    if (milliseconds != 0) // The thread library yields with 0.
    {
        g_seen.events.push_back("sleep " + std::to_string(milliseconds));
    }
}
BOOL WINAPI FakeSetServiceStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status)
{
    g_seen.reports.push_back(*status);
    g_seen.events.emplace_back("stopped");
    return TRUE;
}
SERVICE_STATUS_HANDLE WINAPI FakeRegisterHandler(const wchar_t*, LPHANDLER_FUNCTION)
{
    g_seen.events.emplace_back("ignore");
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(1);
}

class TxSvcHostProxyTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_module = {};
        g_seen = {};
        ASSERT_EQ(m_group.Create(m_root.Key().Get(), kGroup, KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(m_group.WriteString(L"svc", kClsid), DWORD{0});
        ASSERT_EQ(m_root.Key().WriteDword(L"IsOobeCheckRequired", 0), DWORD{0});
        ASSERT_EQ(m_server.Create(m_class.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(m_server.WriteString(L"", kModulePath), DWORD{0});
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(kGroup));
        m_log.Clear();
    }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    /// Runs the service as the service control manager does, on a thread of its own.
    static void RunService()
    {
        std::thread([] {
            wchar_t name[] = L"svc";
            wchar_t argument[] = L"argument";
            LPWSTR argv[] = {name, argument, nullptr};
            CTxSvcHostProxy::GenericServiceMain(2, argv);
        }).join();
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CTestKey m_class{HKEY_CLASSES_ROOT, std::wstring(L"CLSID\\") + kClsid};
    Basalt::CRegKey m_group;
    Basalt::CRegKey m_server;
    CTxSvcHostProxy m_proxy;
    CLogCapture m_log;
    CImportPatch m_load{"LoadLibraryW", &FakeLoadLibrary};
    CImportPatch m_find{"GetProcAddress", &FakeGetProcAddress};
    CImportPatch m_free{"FreeLibrary", &FakeFreeLibrary};
    CImportPatch m_sleep{"Sleep", &FakeSleep};
    CImportPatch m_register{"RegisterServiceCtrlHandlerW", &FakeRegisterHandler};
    CImportPatch m_status{"SetServiceStatus", &FakeSetServiceStatus};
};

TEST_F(TxSvcHostProxyTest, RunsAServiceFromItsEntryToItsEnd)
{
    ASSERT_TRUE(
        m_load.IsActive() && m_find.IsActive() && m_free.IsActive() && m_sleep.IsActive() &&
        m_register.IsActive() && m_status.IsActive());
    g_module.result = 3;

    RunService();

    const std::vector<std::wstring> starts = {
        L"Entering ServiceMain for 'svc'",
        L"ServiceMain for 'svc' starting (",
        L"Oobe completed, disabling OOBE check",
        std::wstring(L"Mapping svc => ") + kClsid + L" (0x00000000)",
        std::wstring(L"Subsystem ClsID = '") + kClsid + L"'",
        std::wstring(L"Subsystem DLL path: '") + kModulePath + L"'",
        L"Module 'svc' loaded in ",
        L"Object 'svc' created in ",
        L"Loading of svc subsystem took ",
        L"The ITxSvcSubsystem(svc)->TxServiceMain returned 0x00000003",
        L"ServiceMain for svc completed after ",
    };
    const std::vector<std::wstring> messages = m_log.Messages();
    ASSERT_EQ(messages.size(), starts.size());
    for (std::size_t i = 0; i < starts.size(); ++i)
    {
        EXPECT_TRUE(messages[i].starts_with(starts[i])) << i;
        EXPECT_EQ(m_log.Lines()[i].level, DWORD{LogNormal}) << i;
    }
    EXPECT_EQ(g_seen.arguments, (std::vector<std::wstring>{L"svc", L"argument"}));
    EXPECT_EQ(g_seen.events, (Events{"run", "release"})) << "the module stays loaded";
    EXPECT_TRUE(g_seen.reports.empty()) << "the subsystem reports its own states";
    EXPECT_EQ(g_seen.liveObjects, 0);
}

TEST_F(TxSvcHostProxyTest, UnloadsTheModuleAndAsksForATrimOnRequestWithoutNeedingMemory)
{
    g_module.result = kTxSvcUnloadModule;
    g_module.whileRunning = [] { thread_local const CNoMemory t_fromNowOn; };
    g_seen.events.reserve(8);
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    const HANDLE event = ::CreateEventW(nullptr, FALSE, FALSE, name.data());

    RunService();

    EXPECT_EQ(g_seen.events, (Events{"run", "release", "sleep 100", "free"}));
    EXPECT_TRUE(g_seen.reports.empty()) << "it has reported its own end";
    EXPECT_EQ(::WaitForSingleObject(event, 0), DWORD{WAIT_OBJECT_0});
    ::CloseHandle(event);
}

TEST_F(TxSvcHostProxyTest, WhatTheHostedCodeDoesWrongEndsItsOwnServiceOnly)
{
    constexpr wchar_t kException[] = L"Exception found & suppressed in service, returning 0x000010DD";
    constexpr wchar_t kNoInterface[] = L"Failed to get the subsystem interface for 'svc'";
    const std::wstring module = std::wstring(L"odule '") + kModulePath;
    const struct
    {
        Behaviour Module::* step;
        Behaviour behaviour;
        std::wstring cause;
    } rows[] = {
        {&Module::load, Behaviour::NullObject, L"Unable to load m" + module + L"'"},
        {&Module::entryPoint,
         Behaviour::NullObject,
         L"M" + module + L"' does not contain correct entry point"},
        {&Module::classObject, Behaviour::FailedResult, L"DllGetClassObject failed (0x80004002)"},
        {&Module::classObject, Behaviour::NullObject, L"DllGetClassObject failed (0x80004003)"},
        {&Module::classObject, Behaviour::Exception, L"DllGetClassObject failed (0x800710DD)"},
        {&Module::createObject, Behaviour::FailedResult, L"CreateObject failed (0x80004002)"},
        {&Module::createObject, Behaviour::NullObject, kNoInterface},
        {&Module::createObject, Behaviour::Exception, L"CreateObject failed (0x800710DD)"},
        {&Module::run, Behaviour::FailedResult, L"Failed to start sub-service (hr=0x80004002)"},
        {&Module::run, Behaviour::Exception, kException},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.cause));
        g_module = {};
        g_seen = {};
        m_log.Clear();
        g_module.*row.step = row.behaviour;
        const bool loaded = row.step == &Module::run;

        RunService();

        EXPECT_TRUE(m_log.Has(LogError, row.cause));
        EXPECT_NE(m_log.Has(LogError, kNoInterface), loaded);
        EXPECT_EQ(m_log.CountContaining(LogNormal, L"ServiceMain for svc completed"), loaded);
        EXPECT_EQ(g_seen.liveObjects, 0);
        EXPECT_EQ(
            g_seen.events,
            loaded                            ? (Events{"run", "ignore", "stopped", "release"})
            : row.step == &Module::entryPoint ? (Events{"free", "ignore", "stopped"})
                                              : (Events{"ignore", "stopped"}));
        ASSERT_EQ(g_seen.reports.size(), 1U);
        SERVICE_STATUS expected{};
        expected.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
        expected.dwCurrentState = SERVICE_STOPPED;
        EXPECT_EQ(std::memcmp(&g_seen.reports[0], &expected, sizeof(expected)), 0);
    }
}

TEST_F(TxSvcHostProxyTest, AFailureIsNotReportedOnceTheManagerHasStartedTheServiceAgain)
{
    static std::thread s_again;
    g_module.run = Behaviour::FailedResult;
    g_module.whileRunning = [] {
        static const Basalt::CHandle s_arrived(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        g_module.run = Behaviour::Good;
        g_module.whileRunning = [] { ::SetEvent(s_arrived.Get()); };
        s_again = std::thread(&RunService);
        EXPECT_EQ(::WaitForSingleObject(s_arrived.Get(), 10000), DWORD{WAIT_OBJECT_0});
        ::SwitchToThread();
    };
    RunService();
    s_again.join();
    EXPECT_EQ(m_log.Count(LogError, L"Failed to start sub-service (hr=0x80004002)"), 1U);
    EXPECT_TRUE(g_seen.reports.empty());
}

TEST_F(TxSvcHostProxyTest, AnExceptionOutOfReleaseIsSwallowed)
{
    g_module.release = Behaviour::Exception;

    RunService();

    EXPECT_EQ(m_log.Count(LogError, L"Exception found & suppressed in service, returning 0x000010DD"), 2U)
        << "class object and subsystem";
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"ServiceMain for svc completed"), 1U);
}

TEST_F(TxSvcHostProxyTest, ConfigurationThatLeadsToNoModuleIsReportedAsItStands)
{
    const std::wstring unknown = L"{00000000-93D4-4E0F-8C57-2B6D1F0A9E34}";
    const struct
    {
        std::wstring clsid;
        std::wstring line; ///< part of the only error beside the last one; empty: none
    } rows[] = {
        {L"{}", L""},
        {L"", L""},
        {L"subsystem", L"Failed to convert the string clsid to clsid 'subsystem' (0x"},
        {std::wstring(512 * 1024, L'x'), L"Failed to convert the string clsid to clsid 'xxx"},
        {unknown,
         L"Unable to open registry path HKEY_CLASSES_ROOT\\CLSID\\" + unknown +
             L"\\InprocServer32 (0x00000002)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.clsid.substr(0, 40)));
        ASSERT_EQ(m_group.WriteString(L"svc", row.clsid), DWORD{0});
        g_seen = {};
        m_log.Clear();

        RunService();

        EXPECT_EQ(m_log.CountContaining(LogError, L""), row.line.empty() ? 1U : 2U);
        EXPECT_TRUE(m_log.Has(LogError, L"Failed to get the subsystem interface for 'svc'"));
        EXPECT_NE(m_log.CountContaining(LogError, row.line), 0U);
        EXPECT_EQ(g_seen.reports.size(), 1U);
    }
    ASSERT_EQ(m_group.DeleteValue(L"svc"), DWORD{0});
    RunService();
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to get the subsystem clsid"));

    ASSERT_EQ(m_group.WriteString(L"svc", kClsid), DWORD{0});
    ASSERT_EQ(m_server.DeleteValue(L""), DWORD{0});
    RunService();
    EXPECT_TRUE(m_log.Has(LogError, L"Unable to load pathname, no default key"));
}

TEST_F(TxSvcHostProxyTest, WhatTheSystemRefusesIsLoggedAndReportsNoStatus)
{
    {
        const CImportPatch patch("CoInitializeEx", +[](void*, DWORD) -> HRESULT { return E_OUTOFMEMORY; });
        ASSERT_TRUE(patch.IsActive());
        RunService();
    }
    {
        const CImportPatch patch(
            "SetServiceStatus", +[](SERVICE_STATUS_HANDLE, SERVICE_STATUS*) -> BOOL {
                ::SetLastError(ERROR_INVALID_SERVICE_CONTROL);
                return FALSE;
            });
        EXPECT_FALSE(CTxSvcHostProxy::SetServiceStoppedStatus(L"svc"));
    }
    const CImportPatch patch(
        "RegisterServiceCtrlHandlerW",
        +[](const wchar_t*, LPHANDLER_FUNCTION) -> SERVICE_STATUS_HANDLE { return nullptr; });
    EXPECT_FALSE(CTxSvcHostProxy::SetServiceStoppedStatus(L"svc"));

    for (const wchar_t* line :
         {L"Failed to initialize COM (0x8007000E)",
          L"Failed to set the service status, error 1052",
          L"RegisterServiceCtrlHandler failed"})
    {
        EXPECT_EQ(m_log.Count(LogError, line), 1U) << testing::PrintToString(line);
    }
    EXPECT_EQ(m_log.Lines().size(), 4U) << "and the entry";
    EXPECT_EQ(g_seen.events, Events{"ignore"});
}

TEST(TxSvcHostProxy, WithoutArgumentsOrAnInstanceOrDuringAStopNothingRuns)
{
    const CLogCapture log;
    wchar_t name[] = L"svc";
    LPWSTR argv[] = {name, nullptr};

    CTxSvcHostProxy::GenericServiceMain(0, argv);
    CTxSvcHostProxy::GenericServiceMain(1, nullptr);
    CTxSvcHostProxy::GenericServiceMain(1, argv);
    SetReduceRestartStopping(); // For good: this test is the last of the program.
    CTxSvcHostProxy::GenericServiceMain(1, argv);

    EXPECT_EQ(
        log.Messages(),
        (std::vector<std::wstring>{
            L"Insufficient arguments to ServiceMain",
            L"NULL passed as argv ",
            L"No instance for CTxSvcHostProxy",
            L"GenericServiceMain is called when shutdown, argv[0] = svc"}));
    EXPECT_EQ(log.CountContaining(LogError, L""), 4U);
}

} // namespace
