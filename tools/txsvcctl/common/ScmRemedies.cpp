#include "txsvcctl/common/ScmRemedies.h"

namespace TxCtl
{

namespace
{

struct Remedy
{
    DWORD error;
    const wchar_t* text;
};

constexpr Remedy kRemedies[] = {
    {ERROR_DEPENDENT_SERVICES_RUNNING, L"Services that need it are running: stop those first."},
    {ERROR_SERVICE_REQUEST_TIMEOUT,
     L"Its process did not answer in time, or ended before it did: see what 'check' and the host's log say, "
     L"then start it again."},
    {ERROR_SERVICE_ALREADY_RUNNING,
     L"Nothing is left to start: 'status' shows it, 'restart' starts it anew."},
    {ERROR_INVALID_SERVICE_ACCOUNT,
     L"The account does not exist, or the password is not its own: run 'install' with the right --account."},
    {ERROR_SERVICE_DISABLED, L"Nobody may start it: run 'install' with --start manual or auto."},
    {ERROR_SERVICE_DOES_NOT_EXIST, L"No entry has this name: 'list' shows the names, 'install' makes one."},
    {ERROR_SERVICE_CANNOT_ACCEPT_CTRL,
     L"It is starting or stopping and takes no request: wait until 'status' shows the end of that, then try "
     L"again."},
    {ERROR_SERVICE_NOT_ACTIVE, L"Nothing is left to stop: 'start' starts it."},
    {ERROR_SERVICE_DEPENDENCY_FAIL,
     L"A service that it needs does not start: start that one, and see its error."},
    {ERROR_SERVICE_LOGON_FAILED,
     L"Its account's password was changed or has expired, or the account may not log on as a service: run "
     L"'install' with --account and give the password."},
    {ERROR_SERVICE_MARKED_FOR_DELETE,
     L"It is deleted, but still open in a program: end its process, close Services and Task Manager "
     L"everywhere, or restart the system; then try again."},
    {ERROR_SERVICE_EXISTS, L"Another entry has this name: choose a new name, or remove that service first."},
    {ERROR_DUPLICATE_SERVICE_NAME,
     L"Another service has this name, or shows it: give another --display-name."},
    {ERROR_DIFFERENT_SERVICE_ACCOUNT,
     L"All services of a process run under one account: run 'install' with the --account of the others."},
};

} // namespace

const wchar_t* ScmRemedy(DWORD error) noexcept
{
    for (const Remedy& remedy : kRemedies)
    {
        if (remedy.error == error)
        {
            return remedy.text;
        }
    }
    return nullptr;
}

} // namespace TxCtl
