#include "proxy/TxSvcHostProxy.h"

#include <windows.h>
#include <objbase.h>

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "base/Owned.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "logging/logger/LoggingIf.h"
#include "process/ReduceRestart.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/NoMemory.h"
#include "support/TestKey.h"

namespace
{

constexpr wchar_t kClsid[] = L"{7A1E5B0C-93D4-4E0F-8C57-2B6D1F0A9E34}";

std::string g_events; ///< In their order.

void Note(const std::string& event)
{
    static std::mutex s_mutex;
    const CNoMemory::CExempt exempt;
    const std::lock_guard guard(s_mutex);
    g_events += event + " ";
}

/// What the hosted code does when it runs.
HRESULT (*g_run)(DWORD* result);

template <typename Interface>
class CStatic : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        Note("release");
        return 0;
    }
};

class CFakeSubsystem final : public CStatic<ITxSvcSubsystem>
{
public:
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD, LPWSTR*, DWORD* result) override
    {
        Note(*result == 0 ? "run" : "?");
        return g_run(result);
    }
};

class CFakeClassObject final : public CStatic<ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        static CFakeSubsystem s_subsystem;
        Note(riid == IID_ITxSvcSubsystem ? "create" : "?");
        *object = &s_subsystem;
        return S_OK;
    }
};

HRESULT STDAPICALLTYPE FakeDllGetClassObject(REFCLSID /*clsid*/, REFIID riid, void** object)
{
    static CFakeClassObject s_classObject;
    *object = &s_classObject;
    return riid == IID_ITxSvcClassObject ? S_OK : E_NOINTERFACE;
}

BOOL WINAPI FakeSetServiceStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status)
{
    const SERVICE_STATUS expected{SERVICE_WIN32_SHARE_PROCESS, SERVICE_STOPPED, 0, 0, 0, 0, 0};
    Note(std::memcmp(status, &expected, sizeof(expected)) == 0 ? "stopped" : "?");
    return TRUE;
}

const auto g_realOpen = RealFunction<decltype(::RegOpenKeyExW)>("RegOpenKeyExW", L"advapi32.dll");

class TxSvcHostProxyTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        Basalt::CRegKey group;
        Basalt::CRegKey server;
        g_run = +[](DWORD*) { return S_OK; };
        ASSERT_EQ(m_root.Key().WriteDword(L"IsOobeCheckRequired", 0), 0U);
        ASSERT_EQ(group.Create(m_root.Key().Get(), L"g", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(group.WriteString(L"svc", kClsid), 0U);
        ASSERT_EQ(server.Create(m_class.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(server.WriteString(L"", L"x.dll"), 0U);
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
        m_log.Clear();
    }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    /// As the service control manager does, on a thread of its own.
    /// @param allowed allocations that succeed.
    static std::string RunService(int allowed = -1)
    {
        g_events.clear();
        std::thread([allowed] {
            wchar_t name[] = L"svc";
            LPWSTR argv[] = {name, nullptr};
            const CNoMemory noMemory(allowed);
            CTxSvcHostProxy::GenericServiceMain(1, argv);
        }).join();
        return g_events;
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CTestKey m_class{HKEY_CLASSES_ROOT, std::wstring(L"CLSID\\") + kClsid};
    CTxSvcHostProxy m_proxy;
    CFakeTrace m_log;

private:
    CImportPatch m_patches[6] = {
        {"LoadLibraryW", +[](const wchar_t*) { return reinterpret_cast<HMODULE>(0x7E570000); }},
        {"GetProcAddress", +[](HMODULE, const char*) { return &FakeDllGetClassObject; }},
        {"FreeLibrary",
         +[](HMODULE) {
             Note("free");
             return TRUE;
         }},
        {"Sleep",
         +[](DWORD milliseconds) {
             // The thread library yields with 0.
             milliseconds != 0 ? Note("sleep " + std::to_string(milliseconds)) : void();
         }},
        {"RegisterServiceCtrlHandlerW",
         +[](const wchar_t*, LPHANDLER_FUNCTION) {
             Note("ignore");
             return reinterpret_cast<SERVICE_STATUS_HANDLE>(1);
         }},
        {"SetServiceStatus", &FakeSetServiceStatus}};
};

TEST_F(TxSvcHostProxyTest, AFailedServiceIsReportedBeforeItIsReleasedAndAnUnloadedOneLeavesFirst)
{
    g_run = +[](DWORD* result) {
        *result = 3;
        return S_OK;
    };
    EXPECT_EQ(RunService(), "create release run release ");
    g_run = +[](DWORD* result) {
        *result = kTxSvcUnloadModule;
        return S_OK;
    };
    EXPECT_EQ(RunService(), "create release run release sleep 100 free ");
    g_run = +[](DWORD*) -> HRESULT { throw 5; };
    EXPECT_EQ(RunService(), "create release run ignore stopped release ");
}

TEST_F(TxSvcHostProxyTest, AFailureIsNotReportedOnceTheManagerHasStartedTheServiceAgain)
{
    static std::thread s_again;
    static const Basalt::CHandle s_arrived(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    g_run = +[](DWORD*) {
        g_run = +[](DWORD*) {
            ::SetEvent(s_arrived.Get());
            return S_OK;
        };
        s_again = std::thread([] { RunService(); });
        EXPECT_EQ(::WaitForSingleObject(s_arrived.Get(), 60000), DWORD{WAIT_OBJECT_0});
        return E_FAIL;
    };
    const std::string events = RunService();
    s_again.join();
    EXPECT_EQ(m_log.Count(ETWLogging::LogError, L"Failed to start sub-service (hr=0x80004005)"), 1U);
    EXPECT_EQ(events.find("stopped"), std::string::npos);
}

TEST_F(TxSvcHostProxyTest, WithoutMemoryAtAnyPointTheServiceRunsOrIsReportedStopped)
{
    for (int allowed = 0; RunService(allowed).find("stopped") != std::string::npos; ++allowed)
    {
        EXPECT_EQ(g_events.find("run"), std::string::npos) << allowed;
        ASSERT_LT(allowed, 1000);
    }
    EXPECT_EQ(g_events, "create release run release ");
    EXPECT_GT(m_log.Count(ETWLogging::LogError, L"Out of memory, stopping service 'svc'"), 2U);
}

TEST_F(TxSvcHostProxyTest, AsksForKeysThatItMayChange)
{
    static std::string s_accesses;
    const CImportPatch patch(
        "RegOpenKeyExW", +[](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
            s_accesses += access == (KEY_READ | KEY_WRITE) ? '.' : '?';
            return g_realOpen(root, path, options, access, key);
        });
    RunService();
    EXPECT_EQ(s_accesses, "...");
}

TEST_F(TxSvcHostProxyTest, WhatTheSystemRefusesIsLogged)
{
    g_run = +[](DWORD*) { return E_FAIL; };
    const auto fail = +[]() -> std::uintptr_t {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    };
    EXPECT_EQ(RunService(), "create release run ignore stopped release ");
    for (const auto& [import, events, line] :
         {std::tuple{
              "RegisterServiceCtrlHandlerW", "release run release ", "RegisterServiceCtrlHandler failed"},
          {"SetServiceStatus", "run ignore release ", "Failed to set the service status, error 5"}})
    {
        const CImportPatch patch(import, fail);
        m_log.Clear();
        EXPECT_TRUE(RunService().ends_with(events)) << g_events;
        EXPECT_NE(
            m_log.Take().find(std::string("4 CTxSvcHostProxy::SetServiceStoppedStatus: ") + line),
            std::string::npos);
    }
    const CImportPatch patch("CoInitializeEx", +[] { return E_OUTOFMEMORY; });
    m_log.Clear();
    EXPECT_EQ(RunService(), "");
    EXPECT_TRUE(m_log.Take().ends_with(
        "4 CTxSvcHostProxy::ProxyServiceMain: Failed to initialize COM (0x8007000E)\n"));
}

TEST(TxSvcHostProxy, WithoutArgumentsOrAnInstanceOrDuringAStopNothingRuns)
{
    CFakeTrace log;
    wchar_t name[] = L"svc";
    LPWSTR argv[] = {name, nullptr};

    CTxSvcHostProxy::GenericServiceMain(0, argv);
    CTxSvcHostProxy::GenericServiceMain(1, nullptr);
    CTxSvcHostProxy::GenericServiceMain(1, argv);
    SetReduceRestartStopping(); // For good: this test is the last of the program.
    CTxSvcHostProxy::GenericServiceMain(1, argv);

    const std::string place = "4 CTxSvcHostProxy::GenericServiceMain: ";
    EXPECT_EQ(
        log.Take(),
        place + "Insufficient arguments to ServiceMain\n" + place + "NULL passed as argv \n" + place +
            "No instance for CTxSvcHostProxy\n" + place +
            "GenericServiceMain is called when shutdown, argv[0] = svc\n");
}

} // namespace
