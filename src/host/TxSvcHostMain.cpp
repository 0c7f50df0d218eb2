#include "host/TxSvcHostMain.h"

#include <windows.h>

#include <cwchar>
#include <exception>

#include "contract/CommandLine.h"
#include "contract/Keys.h"
#include "contract/LogNames.h"
#include "control/GroupServices.h"
#include "control/InstallingUpdate.h"
#include "control/RegistryLink.h"
#include "host/TxSvcHost.h"
#include "logging/Log.h"
#include "logging/controller/AutoLogController.h"
#include "privileges/NvidiaDriverFix.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHostMain";

void LogBanner(int argc, wchar_t** argv)
{
    if (LogIsEnabled(LogNormal))
    {
        TX_LOG(
            LogNormal,
            L"wmain",
            L"Tarvex Shared Service Host [%s] v%d.%d.%d.%d starting",
            argc != 0 ? argv[0] : L"n/a",
            TX_VERSION_MAJOR,
            TX_VERSION_MINOR,
            TX_VERSION_BUILD,
            TX_VERSION_REVISION);
    }
}

int Run(int argc, wchar_t** argv)
{
    if (IsInstallingUpdate() != 0)
    {
        return ERROR_SUCCESS; // The installer stops and starts the group itself.
    }
    if (std::wcsstr(::GetCommandLineW(), Contract::kStartServicesSwitch) != nullptr)
    {
        StartServices(true);
        return ERROR_SUCCESS;
    }
    LogBanner(argc, argv);

    if (!IsRegistryLink(Contract::kProductKey))
    {
        CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true);
    }
    const CNvidiaDriverFix privileges(true);
    CTxSvcHost host;
    return static_cast<int>(host.Start(argc, argv));
}

} // namespace

int TxSvcHostMain(int argc, wchar_t** argv)
{
    // A damaged module must fail to load, not put up a box that nobody can click away in a service's session.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);

    // Before and after all logging: it owns the session that receives the events.
    const AutoLogController logController(kHostApplication);

    LoggingIdentity identity;
    identity.group = kHostLogGroup;
    identity.host = nullptr;
    SetLoggingIdentity(identity);

    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception&)
    {
        // Uncaught, it would end the process without undoing anything.
        TX_LOG(LogCritical, L"wmain", L"Out of memory, ending the process");
        CTxSvcHostConfig::ReleaseInstance();
        return ERROR_OUTOFMEMORY;
    }
}
