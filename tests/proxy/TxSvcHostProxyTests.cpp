#include "proxy/TxSvcHostProxy.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "base/WorkingSetEvent.h"
#include "config/TxSvcHostConfig.h"
#include "control/ReduceRestart.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kGroup[] = L"TxProxyGroup";
constexpr wchar_t kClsid[] = L"{7A1E5B0C-93D4-4E0F-8C57-2B6D1F0A9E34}";
constexpr wchar_t kModulePath[] = L"C:\\TxTest\\subsystem.dll";
const HMODULE kModule = reinterpret_cast<HMODULE>(0x7E570000);

// What the hosted code does, and what was seen of it. Cleared by SetUp.
enum class Behaviour
{
    Good,
    FailedResult,
    NullObject,
    CppException,
    AccessViolation,
};
struct
{
    bool loadFails;
    bool hasEntryPoint;
    Behaviour getClassObject;
    Behaviour createObject;
    Behaviour run;
    DWORD result;
    Behaviour release;
} g_module;
struct
{
    std::vector<std::wstring> arguments;
    std::vector<SERVICE_STATUS> reports;
    std::vector<std::string> events; ///< in their order
    int liveObjects;
} g_seen;
volatile int* g_nowhere = nullptr;

HRESULT Perform(Behaviour behaviour)
{
    switch (behaviour)
    {
    case Behaviour::FailedResult:
        return E_NOINTERFACE;
    case Behaviour::CppException:
        throw 5;
    case Behaviour::AccessViolation:
        *g_nowhere = 1;
        return S_OK;
    default:
        return S_OK;
    }
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
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        g_seen.events.emplace_back("run");
        EXPECT_EQ(*result, 0U);
        g_seen.arguments.assign(argv, argv + argc);
        EXPECT_EQ(::GetThreadPriority(::GetCurrentThread()), THREAD_PRIORITY_ABOVE_NORMAL);
        *result = g_module.result;
        return Perform(g_module.run);
    }
};

class CFakeClassObject final : public CCounted<ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        EXPECT_EQ(riid, IID_ITxSvcSubsystem);
        const HRESULT status = Perform(g_module.createObject);
        if (g_module.createObject == Behaviour::Good)
        {
            *object = new CFakeSubsystem;
        }
        return status;
    }
};

HRESULT STDAPICALLTYPE FakeDllGetClassObject(REFCLSID /*clsid*/, REFIID riid, void** object)
{
    EXPECT_EQ(riid, IID_ITxSvcClassObject);
    const HRESULT status = Perform(g_module.getClassObject);
    if (g_module.getClassObject == Behaviour::Good)
    {
        *object = new CFakeClassObject;
    }
    return status;
}

HMODULE WINAPI FakeLoadLibrary(const wchar_t* path)
{
    EXPECT_STREQ(path, kModulePath);
    return g_module.loadFails ? nullptr : kModule;
}
FARPROC WINAPI FakeGetProcAddress(HMODULE module, const char* name)
{
    EXPECT_EQ(module, kModule);
    EXPECT_STREQ(name, "DllGetClassObject");
    return g_module.hasEntryPoint ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FakeDllGetClassObject))
                                  : nullptr;
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
SERVICE_STATUS_HANDLE WINAPI FakeRegisterHandler(const wchar_t*, LPHANDLER_FUNCTION)
{
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(1);
}
SERVICE_STATUS_HANDLE WINAPI RefuseHandler(const wchar_t*, LPHANDLER_FUNCTION)
{
    return nullptr;
}
BOOL WINAPI FakeSetServiceStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status)
{
    g_seen.reports.push_back(*status);
    return TRUE;
}
BOOL WINAPI RefuseServiceStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS*)
{
    ::SetLastError(ERROR_INVALID_SERVICE_CONTROL);
    return FALSE;
}
HRESULT WINAPI RefuseCom(void*, DWORD)
{
    return E_OUTOFMEMORY;
}

class TxSvcHostProxyTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_module = {};
        g_module.hasEntryPoint = true;
        g_seen = {};
        ASSERT_EQ(m_group.Create(m_root.Key().Get(), kGroup, KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(m_group.WriteString(L"svc", kClsid), DWORD{0});
        ASSERT_EQ(m_root.Key().WriteDword(L"IsOobeCheckRequired", 0), DWORD{0});
        SetModulePath(kModulePath);
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(kGroup));
        m_log.Clear();
    }
    void TearDown() override
    {
        m_group.Close();
        CTxSvcHostConfig::ReleaseInstance();
    }

    void SetModulePath(const std::wstring& path)
    {
        Basalt::CRegKey server;
        ASSERT_EQ(server.Create(m_class.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(server.WriteString(L"", path), DWORD{0});
    }

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

    CTestKey m_root{HKEY_LOCAL_MACHINE, CTxSvcHostConfig::kRootKey};
    CTestKey m_class{HKEY_CLASSES_ROOT, std::wstring(L"CLSID\\") + kClsid};
    Basalt::CRegKey m_group;
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
    EXPECT_EQ(g_seen.events, std::vector<std::string>{"run"}) << "the module stays loaded";
    EXPECT_TRUE(g_seen.reports.empty()) << "the subsystem reports its own states";
    EXPECT_EQ(g_seen.liveObjects, 0);
}

TEST_F(TxSvcHostProxyTest, UnloadsTheModuleAndAsksForATrimOnRequest)
{
    g_module.result = kTxSvcUnloadModule;
    const std::wstring name = Basalt::WorkingSetEventName(::GetCurrentProcessId());
    const HANDLE event = ::CreateEventW(nullptr, FALSE, FALSE, name.c_str());

    RunService();

    EXPECT_EQ(g_seen.events, (std::vector<std::string>{"run", "sleep 100", "free"}));
    EXPECT_EQ(::WaitForSingleObject(event, 0), DWORD{WAIT_OBJECT_0});
    ::CloseHandle(event);
}

TEST_F(TxSvcHostProxyTest, WhatTheHostedCodeDoesWrongEndsItsOwnServiceOnly)
{
    constexpr wchar_t kException[] = L"Exception found & suppressed in service, returning 0x000010DD";
    constexpr wchar_t kNoInterface[] = L"Failed to get the subsystem interface for 'svc'";
    const struct
    {
        const char* name;
        void (*arrange)();
        std::wstring cause;
        std::wstring consequence;
        bool freed;
        bool hardware; ///< needs structured exception handling
    } rows[] = {
        {"module does not load",
         [] { g_module.loadFails = true; },
         std::wstring(L"Unable to load module '") + kModulePath + L"'",
         kNoInterface,
         false,
         false},
        {"no entry point",
         [] { g_module.hasEntryPoint = false; },
         std::wstring(L"Module '") + kModulePath + L"' does not contain correct entry point",
         kNoInterface,
         true,
         false},
        {"class object refused",
         [] { g_module.getClassObject = Behaviour::FailedResult; },
         L"DllGetClassObject failed (0x80004002)",
         kNoInterface,
         false,
         false},
        {"null class object",
         [] { g_module.getClassObject = Behaviour::NullObject; },
         L"DllGetClassObject failed (0x80004003)",
         kNoInterface,
         false,
         false},
        {"class object throws",
         [] { g_module.getClassObject = Behaviour::CppException; },
         L"DllGetClassObject failed (0x800710DD)",
         kNoInterface,
         false,
         false},
        {"class object crashes",
         [] { g_module.getClassObject = Behaviour::AccessViolation; },
         L"DllGetClassObject failed (0x800710DD)",
         kNoInterface,
         false,
         true},
        {"create fails",
         [] { g_module.createObject = Behaviour::FailedResult; },
         L"CreateObject failed (0x80004002)",
         kNoInterface,
         false,
         false},
        {"create throws",
         [] { g_module.createObject = Behaviour::CppException; },
         L"CreateObject failed (0x800710DD)",
         kNoInterface,
         false,
         false},
        {"create gives nothing",
         [] { g_module.createObject = Behaviour::NullObject; },
         kNoInterface,
         kNoInterface,
         false,
         false},
        {"service fails",
         [] { g_module.run = Behaviour::FailedResult; },
         L"Failed to start sub-service (hr=0x80004002)",
         L"",
         false,
         false},
        {"service throws", [] { g_module.run = Behaviour::CppException; }, kException, L"", false, false},
        {"service crashes", [] { g_module.run = Behaviour::AccessViolation; }, kException, L"", false, true},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
#if !defined(__clang__)
        if (row.hardware)
        {
            continue;
        }
#endif
        g_module = {};
        g_module.hasEntryPoint = true;
        g_seen = {};
        m_log.Clear();
        row.arrange();

        RunService();

        EXPECT_TRUE(m_log.Has(LogError, row.cause));
        EXPECT_TRUE(row.consequence.empty() || m_log.Has(LogError, row.consequence));
        EXPECT_EQ(
            m_log.CountContaining(LogNormal, L"ServiceMain for svc completed"), row.consequence.empty());
        EXPECT_EQ(g_seen.liveObjects, 0);
        EXPECT_EQ(std::count(g_seen.events.begin(), g_seen.events.end(), "free"), row.freed);
        ASSERT_EQ(g_seen.reports.size(), 1U);
        SERVICE_STATUS expected{};
        expected.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
        expected.dwCurrentState = SERVICE_STOPPED;
        EXPECT_EQ(std::memcmp(&g_seen.reports[0], &expected, sizeof(expected)), 0);
    }
}

TEST_F(TxSvcHostProxyTest, AnExceptionOutOfReleaseIsSwallowed)
{
    g_module.release = Behaviour::CppException;

    RunService();

    EXPECT_EQ(m_log.Count(LogError, L"Exception found & suppressed in service, returning 0x000010DD"), 2U)
        << "class object and subsystem";
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"ServiceMain for svc completed"), 1U);
}

TEST_F(TxSvcHostProxyTest, ConfigurationThatLeadsToNoModuleIsReportedAsItStands)
{
    const std::wstring longText(512 * 1024, L'x');
    const struct
    {
        const char* name;
        std::wstring clsid;
        std::wstring line; ///< part of the only error beside the last one; empty: none
    } rows[] = {
        {"no subsystem", L"{}", L""},
        {"empty", L"", L""},
        {"no CLSID", L"subsystem", L"Failed to convert the string clsid to clsid 'subsystem' (0x"},
        {"cut short", L"{7A1E5B0C-93D4", L"Failed to convert the string clsid to clsid '{7A1E5B0C-93D4' (0x"},
        {"1 MiB", longText, L"Failed to convert the string clsid to clsid 'xxx"},
        {"not registered",
         L"{00000000-93D4-4E0F-8C57-2B6D1F0A9E34}",
         L"Unable to open registry path HKEY_CLASSES_ROOT\\CLSID\\{00000000-93D4-4E0F-8C57-2B6D1F0A9E34}"
         L"\\InprocServer32 (0x00000002)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(m_group.WriteString(L"svc", row.clsid), DWORD{0});
        g_seen = {};
        m_log.Clear();

        RunService();

        EXPECT_EQ(m_log.CountContaining(LogError, L""), row.line.empty() ? 1U : 2U);
        EXPECT_TRUE(m_log.Has(LogError, L"Failed to get the subsystem interface for 'svc'"));
        EXPECT_TRUE(row.line.empty() || m_log.CountContaining(LogError, row.line) == 1);
        EXPECT_EQ(g_seen.reports.size(), 1U);
    }
    ASSERT_EQ(m_group.DeleteValue(L"svc"), DWORD{0});
    RunService();
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to get the subsystem clsid"));

    ASSERT_EQ(m_group.WriteString(L"svc", kClsid), DWORD{0});
    Basalt::CRegKey server;
    ASSERT_EQ(server.Open(m_class.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(server.DeleteValue(L""), DWORD{0});
    RunService();
    EXPECT_TRUE(m_log.Has(LogError, L"Unable to load pathname, no default key"));
}

TEST_F(TxSvcHostProxyTest, SomeRoadsReportNoStatus)
{
    wchar_t name[] = L"svc";
    LPWSTR argv[] = {name, nullptr};

    CTxSvcHostProxy::GenericServiceMain(0, argv);
    CTxSvcHostProxy::GenericServiceMain(1, nullptr);
    {
        const CImportPatch patch("CoInitializeEx", &RefuseCom);
        ASSERT_TRUE(patch.IsActive());
        RunService();
    }
    EXPECT_TRUE(m_log.Has(LogError, L"Insufficient arguments to ServiceMain"));
    EXPECT_TRUE(m_log.Has(LogError, L"NULL passed as argv "));
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to initialize COM (0x8007000E)"));
    EXPECT_TRUE(g_seen.reports.empty());
    EXPECT_TRUE(g_seen.events.empty());
}

TEST_F(TxSvcHostProxyTest, AStatusThatCannotBeReportedIsLogged)
{
    {
        const CImportPatch patch("SetServiceStatus", &RefuseServiceStatus);
        EXPECT_FALSE(CTxSvcHostProxy::SetServiceStoppedStatus(L"svc"));
    }
    const CImportPatch patch("RegisterServiceCtrlHandlerW", &RefuseHandler);
    EXPECT_FALSE(CTxSvcHostProxy::SetServiceStoppedStatus(L"svc"));
    EXPECT_EQ(
        m_log.Messages(),
        (std::vector<std::wstring>{
            L"Failed to set the service status, error 1052", L"RegisterServiceCtrlHandler failed"}));
}

TEST(TxSvcHostProxy, WithoutAnInstanceOrDuringAStopNothingRuns)
{
    const CLogCapture log;
    wchar_t name[] = L"svc";
    LPWSTR argv[] = {name, nullptr};

    CTxSvcHostProxy::GenericServiceMain(1, argv);
    EXPECT_TRUE(log.Has(LogError, L"No instance for CTxSvcHostProxy"));

    SetReduceRestartStopping(); // For good: this test is the last of the program.
    CTxSvcHostProxy::GenericServiceMain(1, argv);
    EXPECT_TRUE(log.Has(LogError, L"GenericServiceMain is called when shutdown, argv[0] = svc"));
}

} // namespace
