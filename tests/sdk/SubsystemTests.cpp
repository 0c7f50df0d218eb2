#include <windows.h>

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

#include "ServiceRun.h"
#include "TxSubsystemModule.h"

using ::testing::ElementsAreArray;

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

Basalt::CComReference<ITxSvcSubsystem> MakeService(
    decltype(CScriptedService::onStart) onStart = {},
    decltype(CScriptedService::run) run = {},
    decltype(CScriptedService::onStop) onStop = {})
{
    auto* const service = new CScriptedService;
    service->onStart = std::move(onStart);
    service->run = std::move(run);
    service->onStop = std::move(onStop);
    return Basalt::CComReference<ITxSvcSubsystem>(service);
}

std::vector<DWORD> States(const std::vector<SERVICE_STATUS>& reports)
{
    std::vector<DWORD> states;
    for (const SERVICE_STATUS& report : reports)
    {
        states.push_back(report.dwCurrentState);
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

class Subsystem : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_manager.IsActive()); }
    void TearDown() override { EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK) << "an object was not released"; }

    CFakeManager m_manager;
};

} // namespace

TEST_F(Subsystem, ReportsEveryRoadInOrder)
{
    constexpr DWORD kStarting = SERVICE_START_PENDING;
    constexpr DWORD kRunning = SERVICE_RUNNING;
    constexpr DWORD kStopping = SERVICE_STOP_PENDING;
    constexpr DWORD kStopped = SERVICE_STOPPED;
    const auto fail = [](auto&...) -> DWORD { return ERROR_NOT_READY; };
    const auto raise = [](auto&&...) -> DWORD { throw std::runtime_error("on purpose"); };
    const auto endWithError = [](auto& service, HANDLE) { service.SetExitCode(ERROR_WRITE_FAULT); };
    const auto unload = [](auto& service) {
        service.SetUnloadAfterStop();
        return DWORD{ERROR_SUCCESS};
    };
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
        decltype(CScriptedService::onStart) onStart;
        decltype(CScriptedService::run) run;
        decltype(CScriptedService::onStop) onStop;
        DWORD control;
        std::vector<DWORD> states;
        DWORD exitCode;
        DWORD result;
    } cases[] = {
        {"stop", {}, {}, {}, SERVICE_CONTROL_STOP, {kStarting, kRunning, kStopping, kStopped}, 0, 0},
        {"shutdown", {}, {}, {}, SERVICE_CONTROL_SHUTDOWN, {kStarting, kRunning, kStopping, kStopped}, 0, 0},
        {"unload",
         unload,
         {},
         {},
         SERVICE_CONTROL_STOP,
         {kStarting, kRunning, kStopping, kStopped},
         0,
         0xDEADBABE},
        {"slow",
         startSlowly,
         stopSlowly,
         {},
         SERVICE_CONTROL_STOP,
         {kStarting, kStarting, kStarting, kRunning, kStopping, kStopping, kStopped},
         0,
         0},
        {"OnStart fails", fail, {}, {}, 0, {kStarting, kStopped}, ERROR_NOT_READY, ERROR_NOT_READY},
        {"OnStart throws", raise, {}, {}, 0, {kStarting, kStopped}, 1064, 1064},
        {"Run throws", {}, raise, {}, 0, {kStarting, kRunning, kStopped}, 1064, 1064},
        {"OnStop throws",
         {},
         {},
         raise,
         SERVICE_CONTROL_STOP,
         {kStarting, kRunning, kStopping, kStopped},
         1064,
         1064},
        {"Run ends",
         {},
         endWithError,
         {},
         0,
         {kStarting, kRunning, kStopped},
         ERROR_WRITE_FAULT,
         ERROR_WRITE_FAULT},
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
        EXPECT_THAT(States(reports), ElementsAreArray(row.states));
        ExpectSound(reports);
        EXPECT_EQ(reports.back().dwWin32ExitCode, row.exitCode);
        EXPECT_EQ(run.Returned(), S_OK);
        EXPECT_EQ(run.Result(), row.result);
    }
}

TEST_F(Subsystem, HandlesOneStopAndNoOtherControl)
{
    int stops = 0;
    const auto countStop = [&stops](auto&) { ++stops; };
    const auto waitTwice = [](auto& /*service*/, HANDLE stopEvent) {
        ::WaitForSingleObject(stopEvent, INFINITE);
        EXPECT_EQ(::WaitForSingleObject(stopEvent, 0), DWORD{WAIT_OBJECT_0}); // It stays signalled.
    };
    CServiceRun run(MakeService({}, waitTwice, countStop), L"Svc");
    ASSERT_TRUE(run.WaitFor(SERVICE_RUNNING));

    EXPECT_EQ(run.Control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(run.Control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    EXPECT_EQ(run.Reports().size(), 2u);
    EXPECT_EQ(run.Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    EXPECT_EQ(run.Control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    run.Join();
    EXPECT_EQ(
        run.Control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR}); // Was on its way when the service had gone.

    EXPECT_EQ(stops, 1);
    EXPECT_EQ(run.Reports().size(), 4u);
}

TEST_F(Subsystem, StopReachesOnlyTheServiceMeant)
{
    CServiceRun first(MakeService(), L"First");
    CServiceRun second(MakeService(), L"Second");
    CServiceRun third(MakeService(), L"Third");
    ASSERT_TRUE(first.WaitFor(SERVICE_RUNNING) && second.WaitFor(SERVICE_RUNNING));
    ASSERT_TRUE(third.WaitFor(SERVICE_RUNNING));

    second.Control(SERVICE_CONTROL_STOP);
    second.Join();

    EXPECT_EQ(first.Reports().size(), 2u);
    EXPECT_EQ(second.Reports().size(), 4u);
    EXPECT_EQ(third.Reports().size(), 2u);
}

TEST_F(Subsystem, IsReportedStoppedOnlyWhenOnStopIsOver)
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

TEST_F(Subsystem, LeavesTheReportToTheHostWhenItCannotRegister)
{
    m_manager.RefuseRegistration(ERROR_SERVICE_DOES_NOT_EXIST);
    CServiceRun run(MakeService(), L"Svc");

    run.Join();

    EXPECT_EQ(run.Returned(), HRESULT_FROM_WIN32(ERROR_SERVICE_DOES_NOT_EXIST));
    EXPECT_TRUE(run.Reports().empty());
}

TEST_F(Subsystem, RefusesACallWithoutNameOrResult)
{
    const auto service = MakeService();
    wchar_t name[] = L"Svc";
    LPWSTR argv[] = {name};
    DWORD result = 0;

    EXPECT_EQ(service.Get()->TxServiceMain(0, argv, &result), E_INVALIDARG);
    EXPECT_EQ(service.Get()->TxServiceMain(1, nullptr, &result), E_INVALIDARG);
    EXPECT_EQ(service.Get()->TxServiceMain(1, argv, nullptr), E_INVALIDARG);
}
