#include <windows.h>

#include <gtest/gtest.h>
#include <string_view>

#include "CtlTest.h"
#include "support/FakeScm.h"

namespace
{

// What a service is each time that it is looked at: 1 stopped, 2 starting, 3 stopping, 4 running, 5
// continuing, 6 pausing, 7 paused, 8 nothing known; E stopped by Win32 error 2, O with exit code 99 of its
// own.
SERVICE_STATUS_PROCESS StateOf(char look)
{
    return look == 'E'   ? CFakeScm::State(SERVICE_STOPPED, 0, ERROR_FILE_NOT_FOUND)
           : look == 'O' ? CFakeScm::State(SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 99)
                         : CFakeScm::State(static_cast<DWORD>(look - '0'), look == '1' ? 0 : 7);
}

TEST(ServiceControl, WaitsForTheEndAndTellsHowItWent)
{
    const struct
    {
        const wchar_t* command;
        const char* looks;
        DWORD error; ///< of the first StartServiceW or ControlService
        std::size_t calls;
        const wchar_t* part; ///< of the message; of a success all that is printed
        bool isTimeout = false;
    } table[] = {
        {L"start", "1224", 0, 1, L"a: running, process 7\n"},
        {L"start", "4", 0, 0, L"a: running, process 7\n"},
        {L"start", "24", 0, 0, L"a: running, process 7\n"},
        {L"start", "54", 0, 0, L"a: running, process 7\n"},
        {L"start", "124", ERROR_SERVICE_ALREADY_RUNNING, 1, L"a: running, process 7\n"},
        {L"start", "314", 0, 1, L"a: running, process 7\n"},
        {L"start",
         "12E",
         0,
         1,
         L"txsvcctl: cannot start service 'a': it ended at once with exit code 2 (error 2: "},
        {L"start", "1O", 0, 1, L": it ended at once with exit code 99 of its own\n"},
        {L"start", "1", 0, 1, L": it ended at once with exit code 0\n"},
        {L"start", "1E", ERROR_SERVICE_REQUEST_TIMEOUT, 1, L" It is stopped with exit code 2 (error 2: "},
        {L"start", "1O", ERROR_SERVICE_DISABLED, 1, L"txsvcctl: cannot start service 'a': error 1058: "},
        {L"start", "12", 0, 1, L"txsvcctl: cannot start service 'a': error 1460: ", true},
        {L"start", "5", 0, 0, L" Its state is: continuing, process 7\n", true},
        {L"start", "67", 0, 0, L"'a': its state is paused, process 7\n"},
        {L"start", "8", 0, 0, L"'a': its state is unknown, process 7\n"},
        {L"stop", "4431", 0, 1, L"a: stopped\n"},
        {L"stop", "71", 0, 1, L"a: stopped\n"},
        {L"stop", "1", 0, 0, L"a: stopped\n"},
        {L"stop", "31", 0, 0, L"a: stopped\n"},
        {L"stop", "41", ERROR_SERVICE_NOT_ACTIVE, 1, L"a: stopped\n"},
        {L"stop", "2441", ERROR_SERVICE_CANNOT_ACCEPT_CTRL, 2, L"a: stopped\n"},
        {L"stop", "4", ERROR_INVALID_SERVICE_CONTROL, 1, L"txsvcctl: cannot stop service 'a': error 1052: "},
        {L"stop", "43", 0, 1, L" Its state is: stopping, process 7\n", true},
        {L"stop", "42", 0, 1, L" Its state is: starting, process 7\n", true},
        {L"stop", "46", 0, 1, L" Its state is: pausing, process 7\n", true},
    };
    for (const auto& row : table)
    {
        const bool isDone = row.part[0] == L'a';
        for (const int seconds : {2, 30, 3600}) // 30 unless told otherwise.
        {
            SCOPED_TRACE(row.looks + (" in " + std::to_string(seconds)));
            CFakeScm scm;
            CFakeScm::Service& service = scm.services[L"a"];
            service.errors = {row.error};
            service.states.clear();
            for (const char look : std::string_view(row.looks))
            {
                service.states.push_back(StateOf(look));
            }
            std::vector<std::wstring> arguments = {row.command, L"a", L"--timeout", std::to_wstring(seconds)};
            arguments.resize(seconds == 30 ? 2 : 4);

            const CtlResult result = RunCtl(arguments);

            EXPECT_EQ(result.exitCode, isDone ? 0 : 1);
            EXPECT_EQ(result.out, isDone ? row.part : L"") << result;
            EXPECT_NE(result.error.find(isDone ? L"" : row.part), std::wstring::npos) << result;
            EXPECT_EQ(scm.calls.size(), row.calls);
            EXPECT_EQ(static_cast<int>(scm.now / 1000), row.isTimeout ? seconds : 0);
            EXPECT_EQ(scm.opened, 0);
        }
    }
}

TEST(ServiceControl, NamesTheCallThatFails)
{
    CFakeScm scm;
    const std::pair<DWORD&, const wchar_t*> table[] = {
        {scm.services[L"a"].queryError, L"txsvcctl: cannot query the state of service 'a': error 5: "},
        {scm.services[L"a"].openError, L"txsvcctl: cannot stop service 'a': error 5: "},
        {scm.error, L"txsvcctl: cannot open 'the service control manager': error 5: "},
    };
    for (const auto& [error, part] : table)
    {
        error = ERROR_ACCESS_DENIED;
        const CtlResult result = RunCtl({L"stop", L"a"});
        EXPECT_EQ(result.error.find(part), 0U) << result;
    }
}

} // namespace
