#include <windows.h>

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>

#include "TxSubsystemModule.h"
#include "support/ComReference.h"
#include "support/ImportPatch.h"

namespace
{

/// A service that does what the test says.
struct CScripted : TxSdk::CSubsystem
{
    using TxSdk::CSubsystem::ReportProgress;
    using TxSdk::CSubsystem::SetExitCode;
    using TxSdk::CSubsystem::SetUnloadAfterStop;

    /// Never given back: who still looks at the object finds no pointers there.
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* object, std::size_t size) { std::memset(object, 0xDD, size); }

    void WaitForStop(HANDLE stopEvent) { CSubsystem::Run(stopEvent); }

    using Start = std::function<DWORD(CScripted&)>;
    using Body = std::function<void(CScripted&, HANDLE)>;
    using Stop = std::function<void(CScripted&)>;
    Start onStart;
    Body run;
    Stop onStop;

private:
    DWORD OnStart(DWORD argc, LPWSTR* argv) override
    {
        return onStart ? onStart(*this) : CSubsystem::OnStart(argc, argv);
    }
    void Run(HANDLE stopEvent) override { run(*this, stopEvent); }
    void OnStop() override { onStop ? onStop(*this) : CSubsystem::OnStop(); }
};

/// What the service control manager has of the service.
struct Service
{
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    /// S1/9: starting, checkpoint 1, 9 ms; R5: running, accepts 5; P: stopping; X0: stopped, exit code 0.
    std::string reports = {};
};
Service s_service;

DWORD Control(DWORD control)
{
    return s_service.handler(control, 0, nullptr, s_service.context);
}

struct SubsystemTest : ::testing::Test
{
    SubsystemTest() { s_service = {}; }
    ~SubsystemTest() override { EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK) << "an object was not released"; }

    static SERVICE_STATUS_HANDLE WINAPI
    Register(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context)
    {
        s_service = {handler, context};
        return std::wstring_view(name) == L"Svc" ? reinterpret_cast<SERVICE_STATUS_HANDLE>(&s_service)
                                                 : nullptr;
    }
    static BOOL WINAPI Report(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status)
    {
        const auto& [type, state, accepted, exitCode, ownExitCode, checkPoint, waitHint] = *status;
        std::string& reports = reinterpret_cast<Service*>(handle)->reports;
        reports += reports.empty() ? "" : " ";
        reports += "?XSPR"[state];
        reports += std::to_string(
            state == SERVICE_STOPPED   ? exitCode + accepted + checkPoint + waitHint
            : state == SERVICE_RUNNING ? accepted + exitCode + checkPoint + waitHint
                                       : checkPoint + accepted + exitCode);
        reports += waitHint == 0 ? "" : "/" + std::to_string(waitHint);
        reports += type == SERVICE_WIN32_SHARE_PROCESS && ownExitCode == 0 ? "" : "?";
        return TRUE;
    }

    /// As the host runs it: on this thread.
    HRESULT Run(CScripted* service)
    {
        wchar_t name[] = L"Svc";
        LPWSTR argv[] = {name, nullptr};
        return CComReference<ITxSvcSubsystem>(service).Get()->TxServiceMain(1, argv, &m_result);
    }

    DWORD m_result = 0;
    CImportPatch m_patches[2] = {{"RegisterServiceCtrlHandlerExW", &Register}, {"SetServiceStatus", &Report}};
};

} // namespace

TEST_F(SubsystemTest, ReportsEveryRoadInOrder)
{
    const auto fail = [](auto&) -> DWORD { return ERROR_NOT_READY; };
    const auto raise = [](auto&&...) -> DWORD { throw std::runtime_error("on purpose"); };
    const auto end = [](auto& service, HANDLE) { service.SetExitCode(ERROR_WRITE_FAULT); };
    const auto tellProgress = [](auto& service) { service.ReportProgress(); };
    const auto unload = [](auto& service) { return service.SetUnloadAfterStop(), DWORD{ERROR_SUCCESS}; };
    const auto startSlowly = [](auto& service) {
        service.ReportProgress();
        return service.ReportProgress(1), DWORD{ERROR_SUCCESS};
    };
    const auto stop = [](auto& service, HANDLE stopEvent) {
        EXPECT_EQ(Control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
        EXPECT_EQ(Control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
        EXPECT_EQ(Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        EXPECT_EQ(Control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR}); // Not told a second time.
        service.WaitForStop(stopEvent);
    };
    const auto stopSlowly = [](auto& service, HANDLE stopEvent) {
        service.ReportProgress(); // Running: nothing to report.
        EXPECT_EQ(Control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
        EXPECT_EQ(::WaitForSingleObject(stopEvent, 0), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(::WaitForSingleObject(stopEvent, 0), DWORD{WAIT_OBJECT_0}); // It stays signalled.
        service.ReportProgress();
    };
    using Row = std::tuple<const char*, DWORD, CScripted::Start, CScripted::Body, CScripted::Stop>;
    for (const auto& [reports, result, onStart, run, onStop] : std::initializer_list<Row>{
             {"S1/10000 R5 P1/10000 X0", 0, {}, stop, {}},
             {"S1/10000 R5 P1/10000 X0", 0xDEADBABE, unload, stop, {}},
             {"S1/10000 S2/10000 S3/1 R5 P1/10000 P2/10000 X0", 0, startSlowly, stopSlowly, {}},
             {"S1/10000 X21", 21, fail, {}, {}},
             {"S1/10000 X1064", 1064, raise, {}, {}},
             {"S1/10000 R5 X1064", 1064, {}, raise, {}},
             {"S1/10000 R5 X29", 29, {}, end, {}},
             {"S1/10000 R5 P1/10000 P2/10000 X0", 0, {}, stop, tellProgress},
             {"S1/10000 R5 P1/10000 X1064", 1064, {}, stop, raise}})
    {
        auto* const service = new CScripted;
        service->onStart = onStart;
        service->run = run;
        service->onStop = onStop;
        EXPECT_EQ(Run(service), S_OK);
        EXPECT_EQ(Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR}); // On its way when it had gone.
        EXPECT_EQ(s_service.reports, reports);
        EXPECT_EQ(m_result, result);
    }
}

TEST_F(SubsystemTest, IsReportedStoppedOnlyWhenOnStopIsOver)
{
    const TxSdk::CHandle inOnStop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::jthread controls;
    auto* const service = new CScripted;
    service->run = [&](auto& /*service*/, HANDLE) {
        controls = std::jthread([] { Control(SERVICE_CONTROL_STOP); });
        ::WaitForSingleObject(inOnStop.Get(), INFINITE); // Ends before it is told to.
    };
    service->onStop = [&](auto& stopping) {
        ::SetEvent(inOnStop.Get());
        ::Sleep(50); // The service's thread could report meanwhile.
        EXPECT_EQ(s_service.reports, "S1/10000 R5 P1/10000");
        stopping.ReportProgress(); // No deadlock with the thread that waits.
    };
    EXPECT_EQ(Run(service), S_OK);
    EXPECT_EQ(s_service.reports, "S1/10000 R5 P1/10000 P2/10000 X0");
}

TEST_F(SubsystemTest, LeavesTheReportToTheHostWhenItCannotReportItself)
{
    EXPECT_EQ(
        CComReference<ITxSvcSubsystem>(new CScripted).Get()->TxServiceMain(0, nullptr, &m_result),
        E_INVALIDARG);
    for (const char* const call : {"RegisterServiceCtrlHandlerExW", "CreateEventW"})
    {
        const CImportPatch patch(call, +[]() -> void* { return ::SetLastError(ERROR_NOT_READY), nullptr; });
        EXPECT_EQ(Run(new CScripted), HRESULT_FROM_WIN32(ERROR_NOT_READY));
    }
    EXPECT_EQ(s_service.reports, "");
}

namespace
{

/// Its construction fails.
struct CFailing : TxSdk::CSubsystem
{
    CFailing() { throw std::bad_alloc(); }
};

constexpr CLSID kClsid = {0x5D1FBE3A, 0x0B52, 0x4B8E, {0x8A, 0x11, 0x60, 0x3C, 0x7E, 0x55, 0x10, 0x01}};

template <typename Service>
HRESULT Create(const IID& iid, void** object)
{
    void* classObject = nullptr;
    EXPECT_EQ(TxSdk::GetClassObject<Service>(kClsid, kClsid, IID_ITxSvcClassObject, &classObject), S_OK);
    const CComReference<ITxSvcClassObject> owned(static_cast<ITxSvcClassObject*>(classObject));
    return owned.Get()->CreateObject(iid, object);
}

HRESULT GetClass(const IID& iid, void** object)
{
    return TxSdk::GetClassObject<CScripted>(kClsid, kClsid, iid, object);
}

HRESULT GetOtherClass(const IID& iid, void** object)
{
    return TxSdk::GetClassObject<CScripted>(kClsid, IID_ITxSvcSubsystem, iid, object);
}

} // namespace

TEST(Module, GivesItsClassAndItsObjectsWithOneReferenceOrSaysWhyNot)
{
    const std::tuple<HRESULT (*)(const IID&, void**), IID, HRESULT> rows[] = {
        {&GetClass, IID_ITxSvcClassObject, S_OK},
        {&GetClass, IID_IUnknown, S_OK},
        {&GetClass, IID_IClassFactory, E_NOINTERFACE},
        {&GetOtherClass, IID_ITxSvcClassObject, CLASS_E_CLASSNOTAVAILABLE},
        {&Create<CScripted>, IID_ITxSvcSubsystem, S_OK},
        {&Create<CScripted>, IID_IClassFactory, E_NOINTERFACE},
        {&Create<CFailing>, IID_ITxSvcSubsystem, E_OUTOFMEMORY},
    };
    for (const auto& [get, iid, expected] : rows)
    {
        void* object = static_cast<void*>(&object); // Not null.
        EXPECT_EQ(get(iid, nullptr), E_POINTER);
        EXPECT_EQ(get(iid, &object), expected);
        ASSERT_EQ(object != nullptr, expected == S_OK);
        EXPECT_EQ(TxSdk::CanUnloadNow(), object != nullptr ? S_FALSE : S_OK);
        if (object != nullptr)
        {
            EXPECT_EQ(static_cast<IUnknown*>(object)->AddRef(), 2U);
            EXPECT_EQ(static_cast<IUnknown*>(object)->Release(), 1U);
            EXPECT_EQ(static_cast<IUnknown*>(object)->Release(), 0U);
        }
        EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK);
    }
}
