#include <windows.h>

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "ServiceRun.h"
#include "TxSubsystemModule.h"
#include "support/ComReference.h"

namespace
{

/// A service that does what the test says.
class CScriptedService : public TxSdk::CSubsystem
{
public:
    using TxSdk::CSubsystem::ReportProgress;
    using TxSdk::CSubsystem::SetExitCode;
    using TxSdk::CSubsystem::SetUnloadAfterStop;

    std::function<DWORD(CScriptedService&)> onStart;
    std::function<void(CScriptedService&, HANDLE)> run;
    std::function<void(CScriptedService&)> onStop;

private:
    DWORD OnStart(DWORD argc, LPWSTR* argv) override
    {
        return onStart ? onStart(*this) : CSubsystem::OnStart(argc, argv);
    }
    void Run(HANDLE stopEvent) override { run ? run(*this, stopEvent) : CSubsystem::Run(stopEvent); }
    void OnStop() override { onStop ? onStop(*this) : CSubsystem::OnStop(); }
};

CComReference<ITxSvcSubsystem> MakeService(
    decltype(CScriptedService::onStart) onStart = {},
    decltype(CScriptedService::run) run = {},
    decltype(CScriptedService::onStop) onStop = {})
{
    auto* const service = new CScriptedService;
    service->onStart = std::move(onStart);
    service->run = std::move(run);
    service->onStop = std::move(onStop);
    return CComReference<ITxSvcSubsystem>(service);
}

/// The reported states, a letter each: S start pending, R running, P stop pending, X stopped.
std::string States(const std::vector<SERVICE_STATUS>& reports)
{
    std::string states;
    for (const SERVICE_STATUS& report : reports)
    {
        states += "?XSPR"[report.dwCurrentState]; // In the order of the states' numbers, 1 to 4.
    }
    return states;
}

/// What the service control manager wants of every report.
void ExpectSound(const std::vector<SERVICE_STATUS>& reports)
{
    DWORD lastState = 0;
    DWORD lastCheckPoint = 0;
    for (const SERVICE_STATUS& report : reports)
    {
        const DWORD state = report.dwCurrentState;
        const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
        const DWORD accepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0u;
        EXPECT_EQ(report.dwServiceType, DWORD{SERVICE_WIN32_SHARE_PROCESS});
        EXPECT_EQ(report.dwControlsAccepted, accepted);
        EXPECT_EQ(report.dwWaitHint != 0, pending);
        EXPECT_EQ(report.dwCheckPoint, !pending ? 0u : state == lastState ? lastCheckPoint + 1 : 1u);
        EXPECT_TRUE(state == SERVICE_STOPPED || report.dwWin32ExitCode == NO_ERROR);
        lastState = state;
        lastCheckPoint = report.dwCheckPoint;
    }
}

class SubsystemTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_manager.IsActive()); }
    void TearDown() override { EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK) << "an object was not released"; }

    CFakeManager m_manager;
};

} // namespace

TEST_F(SubsystemTest, ReportsEveryRoadInOrder)
{
    const auto fail = [](auto&) -> DWORD { return ERROR_NOT_READY; };
    const auto raise = [](auto&&...) -> DWORD { throw std::runtime_error("on purpose"); };
    const auto endWithError = [](auto& service, HANDLE) { service.SetExitCode(ERROR_WRITE_FAULT); };
    const auto unload = [](auto& service) { return service.SetUnloadAfterStop(), DWORD{ERROR_SUCCESS}; };
    const auto startSlowly = [](auto& service) {
        service.ReportProgress();
        service.ReportProgress(1);
        return DWORD{ERROR_SUCCESS};
    };
    const auto stopSlowly = [](auto& service, HANDLE stopEvent) {
        service.ReportProgress(); // Running: nothing to report.
        ::WaitForSingleObject(stopEvent, INFINITE);
        service.ReportProgress();
    };
    const struct
    {
        const char* name;
        const char* states;
        decltype(CScriptedService::onStart) onStart;
        decltype(CScriptedService::run) run;
        decltype(CScriptedService::onStop) onStop;
        DWORD control; // 0: the service ends by itself.
        DWORD exitCode;
    } cases[] = {
        {"stop", "SRPX", {}, {}, {}, SERVICE_CONTROL_STOP, 0},
        {"shutdown", "SRPX", {}, {}, {}, SERVICE_CONTROL_SHUTDOWN, 0},
        {"unload", "SRPX", unload, {}, {}, SERVICE_CONTROL_STOP, 0},
        {"slow", "SSSRPPX", startSlowly, stopSlowly, {}, SERVICE_CONTROL_STOP, 0},
        {"OnStart fails", "SX", fail, {}, {}, 0, ERROR_NOT_READY},
        {"OnStart throws", "SX", raise, {}, {}, 0, 1064},
        {"Run throws", "SRX", {}, raise, {}, 0, 1064},
        {"Run ends", "SRX", {}, endWithError, {}, 0, ERROR_WRITE_FAULT},
        {"OnStop throws", "SRPX", {}, {}, raise, SERVICE_CONTROL_STOP, 1064},
    };
    for (const auto& row : cases)
    {
        SCOPED_TRACE(row.name);
        CServiceRun run(MakeService(row.onStart, row.run, row.onStop), std::to_wstring(&row - cases));

        if (row.control != 0)
        {
            ASSERT_TRUE(run.WaitFor(SERVICE_RUNNING));
            EXPECT_EQ(run.Control(row.control), DWORD{NO_ERROR});
        }
        run.Join();

        const std::vector<SERVICE_STATUS> reports = run.Reports();
        EXPECT_EQ(States(reports), row.states);
        ExpectSound(reports);
        EXPECT_EQ(reports.back().dwWin32ExitCode, row.exitCode);
        EXPECT_EQ(run.Returned(), S_OK);
        EXPECT_EQ(run.Result(), row.name == std::string("unload") ? 0xDEADBABE : row.exitCode);
    }
}

TEST_F(SubsystemTest, HandlesOneStopOfTheServiceMeantAndNoOtherControl)
{
    int stops = 0;
    const auto countStop = [&stops](auto&) { ++stops; };
    const auto waitTwice = [](auto& /*service*/, HANDLE stopEvent) {
        ::WaitForSingleObject(stopEvent, INFINITE);
        EXPECT_EQ(::WaitForSingleObject(stopEvent, 0), DWORD{WAIT_OBJECT_0}); // It stays signalled.
    };
    CServiceRun before(MakeService(), L"Before");
    ASSERT_TRUE(before.WaitFor(SERVICE_RUNNING));
    CServiceRun run(MakeService({}, waitTwice, countStop), L"Svc");
    ASSERT_TRUE(run.WaitFor(SERVICE_RUNNING));
    CServiceRun after(MakeService(), L"After");
    ASSERT_TRUE(after.WaitFor(SERVICE_RUNNING));

    EXPECT_EQ(run.Control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(run.Control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    EXPECT_EQ(run.Reports().size(), 2u);
    EXPECT_EQ(run.Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    EXPECT_EQ(run.Control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    run.Join();
    EXPECT_EQ(run.Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR}); // On its way when the service had gone.

    EXPECT_EQ(stops, 1);
    EXPECT_EQ(run.Reports().size(), 4u);
    EXPECT_EQ(before.Reports().size(), 2u);
    EXPECT_EQ(after.Reports().size(), 2u);
}

TEST_F(SubsystemTest, IsReportedStoppedOnlyWhenOnStopIsOver)
{
    const TxSdk::CHandle inOnStop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const CServiceRun* running = nullptr;
    bool stoppedMeanwhile = true;
    const auto endEarly = [&](auto& /*service*/, HANDLE) { ::WaitForSingleObject(inOnStop.Get(), INFINITE); };
    const auto stopSlowly = [&](auto& service) {
        ::SetEvent(inOnStop.Get());
        stoppedMeanwhile = running->WaitFor(SERVICE_STOPPED, 50);
        service.ReportProgress(); // No deadlock with the thread that waits.
    };
    CServiceRun run(MakeService({}, endEarly, stopSlowly), L"Svc");
    running = &run;
    ASSERT_TRUE(run.WaitFor(SERVICE_RUNNING));

    run.Control(SERVICE_CONTROL_STOP);
    run.Join();

    EXPECT_FALSE(stoppedMeanwhile);
    EXPECT_EQ(run.Reports().back().dwCurrentState, DWORD{SERVICE_STOPPED});
}

TEST_F(SubsystemTest, LeavesTheReportToTheHostWhenItCannotReportItself)
{
    const CImportPatch patch(
        "RegisterServiceCtrlHandlerExW",
        +[](const wchar_t*, LPHANDLER_FUNCTION_EX, void*) -> SERVICE_STATUS_HANDLE {
            ::SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
            return nullptr;
        });
    CServiceRun run(MakeService(), L"Svc");
    DWORD result = 0;

    run.Join();

    EXPECT_EQ(run.Returned(), HRESULT_FROM_WIN32(ERROR_SERVICE_DOES_NOT_EXIST));
    EXPECT_TRUE(run.Reports().empty());
    EXPECT_EQ(MakeService().Get()->TxServiceMain(0, nullptr, &result), E_INVALIDARG);
}
