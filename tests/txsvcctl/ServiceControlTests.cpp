#include <windows.h>

#include <deque>
#include <memory>

#include "CtlTest.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"

namespace
{

/// What the service manager answers in these tests. The last state stays.
struct Script
{
    std::deque<SERVICE_STATUS_PROCESS> states;
    DWORD startError = ERROR_SUCCESS;
    std::deque<DWORD> controlErrors = {}; ///< one for each stop; success when there are no more
    DWORD startCalls = 0;
    DWORD controlCalls = 0;
    ULONGLONG now = 0; ///< in milliseconds; sleeping moves it
};
Script g_script;

SERVICE_STATUS_PROCESS State(DWORD state, DWORD processId = 0, DWORD exitCode = 0, DWORD ownExitCode = 0)
{
    SERVICE_STATUS_PROCESS status{};
    status.dwCurrentState = state;
    status.dwProcessId = processId;
    status.dwWin32ExitCode = exitCode;
    status.dwServiceSpecificExitCode = ownExitCode;
    return status;
}

BOOL WINAPI FakeQuery(SC_HANDLE, SC_STATUS_TYPE, BYTE* buffer, DWORD, DWORD*)
{
    *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer) = g_script.states.front();
    if (g_script.states.size() > 1)
    {
        g_script.states.pop_front();
    }
    return TRUE;
}

BOOL WINAPI FakeStart(SC_HANDLE, DWORD, LPCWSTR*)
{
    ++g_script.startCalls;
    ::SetLastError(g_script.startError);
    return g_script.startError == ERROR_SUCCESS;
}

BOOL WINAPI FakeControl(SC_HANDLE, DWORD, SERVICE_STATUS*)
{
    ++g_script.controlCalls;
    DWORD error = ERROR_SUCCESS;
    if (!g_script.controlErrors.empty())
    {
        error = g_script.controlErrors.front();
        g_script.controlErrors.pop_front();
    }
    ::SetLastError(error);
    return error == ERROR_SUCCESS;
}

void WINAPI FakeSleep(DWORD milliseconds)
{
    g_script.now += milliseconds;
}

ULONGLONG WINAPI FakeTickCount()
{
    return g_script.now;
}

class ServiceControlTest : public CtlTest
{
protected:
    void SetUp() override
    {
        g_script = {};
        ASSERT_EQ(Install(L"txctl-a").exitCode, 0);
        ASSERT_EQ(Install(L"txctl-b").exitCode, 0);
        m_query = std::make_unique<CImportPatch>("QueryServiceStatusEx", &FakeQuery);
        m_start = std::make_unique<CImportPatch>("StartServiceW", &FakeStart);
        m_control = std::make_unique<CImportPatch>("ControlService", &FakeControl);
        m_sleep = std::make_unique<CImportPatch>("Sleep", &FakeSleep);
        m_ticks = std::make_unique<CImportPatch>("GetTickCount64", &FakeTickCount);
        ASSERT_TRUE(m_query->IsActive() && m_start->IsActive() && m_control->IsActive());
        ASSERT_TRUE(m_sleep->IsActive() && m_ticks->IsActive());
    }

private:
    std::unique_ptr<CImportPatch> m_query, m_start, m_control, m_sleep, m_ticks;
};

TEST_F(ServiceControlTest, StartAndStopWaitAndTellHowItEnded)
{
    const auto stopped = State(SERVICE_STOPPED);
    const auto starting = State(SERVICE_START_PENDING, 7);
    const auto running = State(SERVICE_RUNNING, 7);
    const auto stopping = State(SERVICE_STOP_PENDING, 7);
    const auto ownCode = State(SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 99);
    const auto win32Code = State(SERVICE_STOPPED, 0, ERROR_FILE_NOT_FOUND);
    const struct
    {
        const char* name;
        const wchar_t* command;
        Script script;
        int exitCode;
        DWORD calls;         ///< of StartServiceW or ControlService
        const wchar_t* part; ///< of what is printed
    } table[] = {
        {"starts", L"start", {{stopped, starting, starting, running}}, 0, 1, L"txctl-a: running, process 7"},
        {"runs already", L"start", {{running}}, 0, 0, L"txctl-a: running, process 7"},
        {"starts by another hand",
         L"start",
         {{stopped, starting, running}, ERROR_SERVICE_ALREADY_RUNNING},
         0,
         1,
         L"running"},
        {"is still stopping", L"start", {{stopping, stopped, running}}, 0, 1, L"running"},
        {"ends with an error",
         L"start",
         {{stopped, starting, win32Code}},
         1,
         1,
         L"cannot start service 'txctl-a': it ended at once with exit code 2 (error 2: "},
        {"ends with its own code",
         L"start",
         {{stopped, ownCode}},
         1,
         1,
         L"ended at once with exit code 99 of its own"},
        {"ends without a code", L"start", {{stopped, stopped}}, 1, 1, L"ended at once with exit code 0\n"},
        {"process ends",
         L"start",
         {{stopped, win32Code}, ERROR_SERVICE_REQUEST_TIMEOUT},
         1,
         1,
         L"It is stopped with exit code 2"},
        {"is disabled", L"start", {{stopped}, ERROR_SERVICE_DISABLED}, 1, 1, L"error 1058"},
        {"never gets ready", L"start", {{stopped, starting}}, 1, 1, L"error 1460: "},
        {"is paused", L"start", {{State(SERVICE_PAUSED, 7)}}, 1, 0, L"its state is paused"},
        {"stops", L"stop", {{running, running, stopping, stopped}}, 0, 1, L"txctl-a: stopped\n"},
        {"is stopped already", L"stop", {{stopped}}, 0, 0, L"txctl-a: stopped\n"},
        {"stops by another hand", L"stop", {{stopping, stopped}}, 0, 0, L"stopped"},
        {"refuses while it starts",
         L"stop",
         {{starting, running, stopped}, 0, {ERROR_SERVICE_CANNOT_ACCEPT_CTRL}},
         0,
         2,
         L"stopped"},
        {"refuses", L"stop", {{running}, 0, {ERROR_INVALID_SERVICE_CONTROL}}, 1, 1, L"error 1052"},
        {"never stops", L"stop", {{running, stopping}}, 1, 1, L"Its state is: stopping, process 7"},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        g_script = row.script;

        const CtlResult result = Run({row.command, L"txctl-a", L"--timeout", L"2"});

        const std::wstring text = result.out + result.error;
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_NE(text.find(row.part), std::wstring::npos) << Narrow(text);
        EXPECT_EQ(g_script.startCalls + g_script.controlCalls, row.calls);
        EXPECT_LE(g_script.now, 2100U);
    }
}

TEST_F(ServiceControlTest, AGroupStartsInItsOrderAndStopsInReverseWhateverOneServiceDoes)
{
    g_script.states = {State(SERVICE_RUNNING, 7)};
    EXPECT_EQ(
        Run({L"start", L"--group", kTestGroup}).out,
        L"txctl-a: running, process 7\ntxctl-b: running, process 7\n");

    g_script.states = {State(SERVICE_RUNNING, 7), State(SERVICE_STOPPED)};
    g_script.controlErrors = {ERROR_INVALID_SERVICE_CONTROL};
    const CtlResult stop = Run({L"stop", L"--group", kTestGroup});
    EXPECT_EQ(stop.exitCode, 1);
    EXPECT_EQ(stop.out, L"txctl-a: stopped\n");
    EXPECT_NE(stop.error.find(L"cannot stop service 'txctl-b': error 1052"), std::wstring::npos)
        << Narrow(stop.error);
}

TEST_F(ServiceControlTest, ARunningServiceIsUpdatedButNotRemoved)
{
    g_script.states = {State(SERVICE_RUNNING, 7)};

    const CtlResult updated = Install(L"txctl-a");
    const CtlResult removed = Run({L"remove", kTestGroup, L"txctl-a"});

    EXPECT_EQ(updated.exitCode, 0);
    EXPECT_NE(updated.out.find(L"running, process 7"), std::wstring::npos);
    EXPECT_EQ(removed.exitCode, 1);
    EXPECT_NE(removed.error.find(L"running, process 7: stop it first"), std::wstring::npos)
        << Narrow(removed.error);
    EXPECT_EQ(Text(GroupKey()), L"txctl-a;txctl-b");
}

} // namespace
