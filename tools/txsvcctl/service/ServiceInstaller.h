#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "txsvcctl/common/Console.h"
#include "txsvcctl/service/EntryOptions.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/RegistryChange.h"
#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

struct InstallRequest
{
    GroupService service;
    std::wstring clsid;
    std::wstring module;
    std::optional<std::wstring> host; ///< absent: TxSvHost.exe beside this program
    std::optional<std::wstring> displayName;
    std::optional<DWORD> startType;
    EntryOptions options;       ///< New entries get restarts unless these say otherwise.
    bool replaceKey = false;    ///< An ordinary key in the place of the registry link may go.
    bool replaceModule = false; ///< A class that is registered for another module may be redirected.
};

/// An installation of which all is checked. It holds as long as nobody else changes services.
struct InstallPlan
{
    InstallRequest request;             ///< The CLSID in canonical form, the module's path full.
    std::wstring host;                  ///< The program's full path.
    std::optional<ServiceConfig> entry; ///< What the service manager has now.
};

/// Checks everything and changes nothing.
/// @throws CToolError when something stands in the way.
[[nodiscard]] InstallPlan PlanInstallation(InstallRequest request);

/// Carries the plan out; the change then knows how to undo it.
/// @param password for the account; empty where it needs none.
/// @throws CToolError
void CarryOut(
    const InstallPlan& plan, const std::wstring& password, CRegistryChange& change, IConsole& console);

/// Says when a service runs: it then has its old settings until it is started again.
/// @param subject what the message calls it.
void SayWhenSettingsApply(const std::wstring& subject, const std::wstring& service, IConsole& console);

/// Makes a service known to the host, to COM, to the service manager and to the event log, or brings what is
/// known up to date.
///
/// All is checked before the first change. A failure in the middle undoes what was done and says so; the
/// registry link, which every start of the host would make as well, stays.
/// @throws CToolError
void InstallService(const InstallRequest& request, IConsole& console);

/// Takes back what InstallService did. The class stays registered while another service uses it.
/// Removing goes on over parts that are missing, so that it also clears what others left half done.
/// @throws CToolError when nothing is known of the service, or it is not stopped
void RemoveService(const GroupService& service, IConsole& console);

} // namespace TxCtl
