#include <windows.h>

#include <gtest/gtest.h>

#include "CtlTest.h"
#include "support/FakeScm.h"

namespace
{

using Service = CFakeScm::Service;

const auto kStopped = CFakeScm::State(SERVICE_STOPPED);
const auto kStarting = CFakeScm::State(SERVICE_START_PENDING, 7);
const auto kStopping = CFakeScm::State(SERVICE_STOP_PENDING, 7);
const auto kRunning = CFakeScm::State(SERVICE_RUNNING, 7);
const auto kContinuing = CFakeScm::State(SERVICE_CONTINUE_PENDING, 7);
const auto kPausing = CFakeScm::State(SERVICE_PAUSE_PENDING, 7);
const auto kPaused = CFakeScm::State(SERVICE_PAUSED, 7);
const auto kFileNotFound = CFakeScm::State(SERVICE_STOPPED, 0, ERROR_FILE_NOT_FOUND);
const auto kOwnCode = CFakeScm::State(SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 99);

TEST(ServiceControl, WaitsForTheEndAndTellsHowItWent)
{
    const struct
    {
        const char* name;
        const wchar_t* command;
        Service service;
        std::size_t calls;   ///< of StartServiceW or ControlService
        const wchar_t* part; ///< of what is printed; a success has its line alone
        bool isTimeout = false;
    } table[] = {
        {"starts",
         L"start",
         {.states = {kStopped, kStarting, kStarting, kRunning}},
         1,
         L"a: running, process 7\n"},
        {"runs already", L"start", {.states = {kRunning}}, 0, L"a: running, process 7\n"},
        {"is on its way", L"start", {.states = {kStarting, kRunning}}, 0, L"a: running, process 7\n"},
        {"goes on", L"start", {.states = {kContinuing, kRunning}}, 0, L"a: running, process 7\n"},
        {"starts by another hand",
         L"start",
         {.errors = {ERROR_SERVICE_ALREADY_RUNNING}, .states = {kStopped, kStarting, kRunning}},
         1,
         L"a: running, process 7\n"},
        {"is still stopping",
         L"start",
         {.states = {kStopping, kStopped, kRunning}},
         1,
         L"a: running, process 7\n"},
        {"ends with an error",
         L"start",
         {.states = {kStopped, kStarting, kFileNotFound}},
         1,
         L"txsvcctl: cannot start service 'a': it ended at once with exit code 2 (error 2: "},
        {"ends with its own code",
         L"start",
         {.states = {kStopped, kOwnCode}},
         1,
         L": it ended at once with exit code 99 of its own\n"},
        {"ends without a code", L"start", {.states = {kStopped}}, 1, L"ended at once with exit code 0\n"},
        {"process ends",
         L"start",
         {.errors = {ERROR_SERVICE_REQUEST_TIMEOUT}, .states = {kStopped, kFileNotFound}},
         1,
         L" It is stopped with exit code 2 (error 2: "},
        {"is disabled",
         L"start",
         {.errors = {ERROR_SERVICE_DISABLED}, .states = {kStopped, kOwnCode}},
         1,
         L"txsvcctl: cannot start service 'a': error 1058: "},
        {"never gets ready",
         L"start",
         {.states = {kStopped, kStarting}},
         1,
         L"cannot start service 'a': error 1460: ",
         true},
        {"never goes on",
         L"start",
         {.states = {kContinuing}},
         0,
         L" Its state is: continuing, process 7\n",
         true},
        {"is paused", L"start", {.states = {kPausing, kPaused}}, 0, L"'a': its state is paused, process 7\n"},
        {"is in no known state",
         L"start",
         {.states = {CFakeScm::State(SERVICE_PAUSED + 1)}},
         0,
         L"its state is unknown\n"},
        {"cannot be asked",
         L"start",
         {.queryError = ERROR_ACCESS_DENIED},
         0,
         L"cannot query the state of service 'a': error 5: "},
        {"cannot be opened",
         L"start",
         {.openError = ERROR_ACCESS_DENIED},
         0,
         L"cannot start service 'a': error 5: "},
        {"stops", L"stop", {.states = {kRunning, kRunning, kStopping, kStopped}}, 1, L"a: stopped\n"},
        {"stops while paused", L"stop", {.states = {kPaused, kStopped}}, 1, L"a: stopped\n"},
        {"is stopped already", L"stop", {.states = {kStopped}}, 0, L"a: stopped\n"},
        {"stops by another hand", L"stop", {.states = {kStopping, kStopped}}, 0, L"a: stopped\n"},
        {"ends meanwhile",
         L"stop",
         {.errors = {ERROR_SERVICE_NOT_ACTIVE}, .states = {kRunning, kStopped}},
         1,
         L"a: stopped\n"},
        {"refuses while it starts",
         L"stop",
         {.errors = {ERROR_SERVICE_CANNOT_ACCEPT_CTRL}, .states = {kStarting, kRunning, kRunning, kStopped}},
         2,
         L"a: stopped\n"},
        {"refuses",
         L"stop",
         {.errors = {ERROR_INVALID_SERVICE_CONTROL}, .states = {kRunning}},
         1,
         L"txsvcctl: cannot stop service 'a': error 1052: "},
        {"never stops",
         L"stop",
         {.states = {kRunning, kStopping}},
         1,
         L" Its state is: stopping, process 7\n",
         true},
        {"pauses instead",
         L"stop",
         {.states = {kRunning, kPausing}},
         1,
         L" Its state is: pausing, process 7\n",
         true},
        {"cannot be opened",
         L"stop",
         {.openError = ERROR_ACCESS_DENIED},
         0,
         L"cannot stop service 'a': error 5: "},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        const bool isDone = row.part[0] == L'a';
        for (const auto& [timeout, seconds] : {std::pair{L"2", 2}, {L"3600", 3600}, {L"", 30}})
        {
            CFakeScm scm;
            scm.services[L"a"] = row.service;

            std::vector<std::wstring> arguments = {row.command, L"a", L"--timeout", timeout};
            arguments.resize(*timeout == L'\0' ? 2 : 4);
            const CtlResult result = RunCtl(arguments);

            EXPECT_EQ(result.exitCode, isDone ? 0 : 1);
            EXPECT_EQ(result.out, isDone ? row.part : L"") << result;
            EXPECT_NE(result.error.find(isDone ? L"" : row.part), std::wstring::npos) << result;
            EXPECT_EQ(scm.calls.size(), row.calls);
            EXPECT_EQ(scm.opened, 0);
            const auto waited = static_cast<int>(scm.now / 1000);
            EXPECT_EQ(waited, row.isTimeout ? seconds : 0) << scm.now;
        }
    }
}

TEST(ServiceControl, NeedsTheServiceManager)
{
    CFakeScm scm;
    scm.error = ERROR_ACCESS_DENIED;

    const CtlResult result = RunCtl({L"stop", L"a"});

    EXPECT_EQ(result.error.find(L"txsvcctl: cannot open 'the service control manager': error 5: "), 0U)
        << result;
}

} // namespace
