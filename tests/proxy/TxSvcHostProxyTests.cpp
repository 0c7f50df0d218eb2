#include "proxy/TxSvcHostProxy.h"

#include <windows.h>
#include <objbase.h>

#include <cstdint>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>

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

using RunFunction = HRESULT (*)(DWORD* result);
RunFunction g_run; ///< What the hosted code does.

/// A class object and its only object.
class CHosted final : public ITxSvcClassObject, public ITxSvcSubsystem
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return Note("release"), 0; }
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID, void** object) override
    {
        *object = static_cast<ITxSvcSubsystem*>(this);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD, LPWSTR*, DWORD* result) override
    {
        Note("run");
        return g_run(result);
    }
};

HRESULT STDAPICALLTYPE FakeDllGetClassObject(REFCLSID, REFIID, void** object)
{
    static CHosted s_hosted;
    *object = static_cast<ITxSvcClassObject*>(&s_hosted);
    return S_OK;
}

const auto g_realOpen = RealFunction<decltype(::RegOpenKeyExW)>("RegOpenKeyExW", L"advapi32.dll");

LSTATUS WINAPI FakeOpen(HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key)
{
    return access == (KEY_READ | KEY_WRITE) ? g_realOpen(root, path, options, access, key)
                                            : ERROR_ACCESS_DENIED;
}

struct TxSvcHostProxyTest : ::testing::Test
{
    TxSvcHostProxyTest()
    {
        Basalt::CRegKey group;
        Basalt::CRegKey server;
        static_cast<void>(m_root.Key().WriteDword(L"IsOobeCheckRequired", 0));
        static_cast<void>(group.Create(m_root.Key().Get(), L"g", KEY_ALL_ACCESS));
        static_cast<void>(group.WriteString(L"svc", kClsid));
        static_cast<void>(server.Create(m_class.Key().Get(), L"InprocServer32", KEY_ALL_ACCESS));
        static_cast<void>(server.WriteString(L"", L"x.dll"));
        EXPECT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
    }
    ~TxSvcHostProxyTest() override { CTxSvcHostConfig::ReleaseInstance(); }

    /// As the service control manager does, on a thread of its own.
    /// @param allowed allocations that succeed.
    static std::string RunService(RunFunction run, int allowed = -1)
    {
        g_run = run;
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
    CImportPatch m_patches[7] = {
        {"ReportEventW",
         +[](HANDLE, WORD type) {
             return type == EVENTLOG_ERROR_TYPE ? Note("event") : void(), TRUE; // Of others the time differs.
         }},
        {"LoadLibraryW", +[](const wchar_t*) { return reinterpret_cast<HMODULE>(0x7E570000); }},
        {"GetProcAddress", +[](HMODULE, const char*) { return &FakeDllGetClassObject; }},
        {"FreeLibrary", +[](HMODULE) { return Note("free"), TRUE; }},
        {"Sleep", +[](DWORD time) { return time >= 100 ? Note("sleep") : void(); }},
        {"RegisterServiceCtrlHandlerW", +[] { return Note("ignore"), std::uintptr_t{1}; }},
        {"SetServiceStatus", +[](SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) {
             const bool isStopped = status->dwCurrentState == SERVICE_STOPPED &&
                                    status->dwWin32ExitCode + status->dwServiceSpecificExitCode == 0;
             return Note(isStopped ? "stopped" : "?"), TRUE;
         }}};
};

TEST_F(TxSvcHostProxyTest, AFailedServiceIsReportedBeforeItsReleaseAndWhatTheSystemRefusesIsLogged)
{
    const auto fail = +[]() -> std::uintptr_t {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    };
    const RunFunction runFails = +[](DWORD*) { return E_FAIL; };
    const RunFunction runUnloads = +[](DWORD* result) {
        *result = kTxSvcUnloadModule;
        return S_OK;
    };
    const struct
    {
        const char* import;
        std::uintptr_t (*fake)();
        RunFunction run;
        const char* events;
        const wchar_t* line;
    } rows[] = {
        {"RegOpenKeyExW", nullptr, runFails, "release run ignore stopped event release ", L"sub-service"},
        {"", nullptr, runUnloads, "release run release sleep free ", L""},
        {"RegisterServiceCtrlHandlerW", fail, runFails, "release run event release ", L"CtrlHandler failed"},
        {"SetServiceStatus", fail, runFails, "release run ignore event release ", L"service status, error 5"},
        {"CoInitializeEx",
         +[] { return static_cast<std::uintptr_t>(E_OUTOFMEMORY); },
         runFails,
         "event ",
         L"Failed to initialize COM (0x8007000E)"},
    };
    for (const auto& row : rows)
    {
        m_log.Clear();
        const CImportPatch patch(
            row.import,
            row.fake != nullptr ? reinterpret_cast<void*>(row.fake) : reinterpret_cast<void*>(&FakeOpen));
        EXPECT_EQ(RunService(row.run), row.events);
        EXPECT_EQ(m_log.CountContaining(ETWLogging::LogError, row.line), *row.line != 0 ? 1U : 0U);
    }
}

TEST_F(TxSvcHostProxyTest, AFailureIsNotReportedOnceTheManagerHasStartedTheServiceAgain)
{
    static std::thread s_again;
    static const Basalt::CHandle s_arrived(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    const std::string events = RunService(+[](DWORD*) {
        s_again = std::thread([] { RunService(+[](DWORD*) { return ::SetEvent(s_arrived.Get()), S_OK; }); });
        EXPECT_EQ(::WaitForSingleObject(s_arrived.Get(), 60000), DWORD{WAIT_OBJECT_0});
        return E_FAIL;
    });
    s_again.join();
    EXPECT_TRUE(m_log.Has(ETWLogging::LogError, L"Failed to start sub-service (hr=0x80004005)"));
    EXPECT_EQ(events.find("stopped"), std::string::npos);
}

TEST_F(TxSvcHostProxyTest, WithoutMemoryAtAnyPointTheServiceRunsOrIsReportedStopped)
{
    int allowed = 0;
    const RunFunction run = +[](DWORD*) { return S_OK; };
    for (; RunService(run, allowed).find("stopped") != std::string::npos; ++allowed)
    {
        EXPECT_EQ(g_events.find("run"), std::string::npos) << allowed;
        ASSERT_LT(allowed, 1000);
    }
    EXPECT_EQ(g_events, "release run release ");
    EXPECT_GT(allowed, 2);
}

// The last: nothing takes the flag back.
TEST_F(TxSvcHostProxyTest, NothingStartsAfterTheStopForAnUpdate)
{
    SetReduceRestartStopping();
    m_log.Clear(); // What the set-up missed.
    EXPECT_EQ(RunService(+[](DWORD*) { return S_OK; }), "");
    EXPECT_EQ(
        m_log.Take(),
        "4 CTxSvcHostProxy::GenericServiceMain: GenericServiceMain is called when shutdown, argv[0] = svc\n");
}

} // namespace
