#include "txsvcctl/service/ServiceInstaller.h"

#include <utility>

#include "base/Paths.h"
#include "contract/CommandLine.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/service/EventSource.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ModuleFile.h"
#include "txsvcctl/service/ServiceManager.h"
#include "txsvcctl/service/Transaction.h"

namespace TxCtl
{

namespace
{

std::wstring Quoted(const GroupService& service)
{
    return L"service '" + service.service + L"' of group '" + service.group + L"'";
}

std::wstring HostBesideThisProgram()
{
    const std::wstring folder = Basalt::ProgramFolder();
    if (folder.empty())
    {
        ThrowFailure(L"find the path of", L"this program", ::GetLastError());
    }
    return folder + Contract::kHostProgram;
}

std::wstring CheckedHost(const std::optional<std::wstring>& path)
{
    const std::wstring host = path ? AbsolutePath(*path) : HostBesideThisProgram();
    const DWORD attributes = ::GetFileAttributesW(host.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        ThrowFailure(L"find host program", host, ::GetLastError());
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    {
        ThrowFailed(L"the host program '" + host + L"' is a folder");
    }
    return host;
}

std::wstring CheckedModule(const std::wstring& path)
{
    const std::wstring module = AbsolutePath(path);
    const ModuleCheck check = CheckModuleFile(module);
    if (check.fault != ModuleFault::None)
    {
        ThrowFailed(L"the module '" + module + L"' " + DescribeModuleFault(check));
    }
    return module;
}

/// A service runs in one group only: the service manager has one command line for it.
void CheckNoOtherGroup(const CGroupStore& store, const GroupService& service)
{
    const std::vector<std::wstring> others = store.OtherGroupsOf(service);
    if (!others.empty())
    {
        ThrowFailed(
            L"the service '" + service.service + L"' is in the group '" + others.front() +
            L"' already: remove it there first");
    }
}

/// Another program's class, or another service's, must not change its module unasked.
void CheckClassIsFree(
    const CGroupStore& store,
    const GroupService& service,
    const std::wstring& clsid,
    const std::wstring& module)
{
    const std::optional<std::wstring> registered = store.Module(clsid);
    if (!registered || IsSameName(*registered, module))
    {
        return;
    }
    const std::vector<GroupService> users = store.OtherUsersOf(clsid, service);
    const bool isOwn = IsSameName(store.Clsid(service.group, service.service).value_or(L""), clsid);
    if (users.empty() && isOwn)
    {
        return;
    }
    ThrowFailed(
        L"the class " + clsid + L" is registered for the module '" + *registered + L"' and " +
        (users.empty() ? L"used by no service of the host" : L"used by " + Quoted(users.front())) +
        L": give --replace-module to register it for '" + module + L"'");
}

/// Other programs' services of the same name must be left alone.
void CheckEntryIsOurs(const ServiceConfig& entry, const GroupService& service)
{
    if (entry.type != SERVICE_WIN32_SHARE_PROCESS ||
        !RunsGroup(ParseImagePath(entry.imagePath), service.group))
    {
        ThrowFailed(
            L"the service manager has a service '" + service.service + L"' that does not run the group '" +
            service.group + L"': " + entry.imagePath);
    }
}

/// The class goes when nobody else uses it. What is no CLSID never had a class, and must not become part of
/// the path of a key to delete.
void UnregisterUnusedClass(
    const CGroupStore& store,
    CRegistryChange& change,
    const std::optional<std::wstring>& clsid,
    const GroupService& service)
{
    const std::optional<std::wstring> canonical = CanonicalClsid(clsid.value_or(L""));
    if (canonical && store.OtherUsersOf(*canonical, service).empty())
    {
        store.UnregisterClass(change, *canonical);
    }
}

/// Puts an entry back. A password is nowhere to be read: an account that needs one does not come back.
void RestoreEntry(
    const std::wstring& service, const ServiceConfig& entry, EntryOptions options, IConsole& console)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    manager.Change(service, {entry.imagePath, entry.displayName, entry.startType});
    const std::wstring account = options.account.value_or(L"");
    const bool isLost = !NeedsNoPassword(account);
    if (isLost)
    {
        options.account.reset();
    }
    ApplyEntryOptions(service, options, {}, console);
    const std::optional<ServiceConfig> now = manager.FindConfig(service);
    if (isLost && now && !IsSameName(now->account, account))
    {
        ThrowFailed(
            L"cannot give service '" + service + L"' its account '" + account + L"' without a password");
    }
}

void WriteEntry(
    const InstallPlan& plan, const std::wstring& password, CRegistryChange& change, IConsole& console)
{
    const InstallRequest& request = plan.request;
    const std::wstring& service = request.service.service;
    const CServiceManager manager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    const ServiceSettings settings{
        FormatImagePath(plan.host, request.service.group), request.displayName, request.startType};
    if (plan.entry)
    {
        const EntryOptions options = ReadEntryOptions(service);
        manager.Change(service, settings);
        change.AddUndo([service, entry = *plan.entry, options, &console] {
            RestoreEntry(service, entry, options, console);
        });
    }
    else
    {
        manager.Create(service, settings);
        change.AddUndo([service] { CServiceManager(SC_MANAGER_CONNECT).Delete(service); });
    }
    ApplyEntryOptions(service, request.options, password, console);
}

/// Asked for before anything is changed.
std::wstring PasswordFor(const std::optional<std::wstring>& account, IConsole& console)
{
    if (!account || NeedsNoPassword(*account))
    {
        return {};
    }
    const std::optional<std::wstring> password = ReadPassword(*account, console);
    if (!password)
    {
        ThrowUsage(L"the account '" + *account + L"' needs a password on standard input");
    }
    return *password;
}

} // namespace

InstallPlan PlanInstallation(InstallRequest request)
{
    const GroupService& service = request.service;
    CheckGroupName(service.group);
    CheckServiceName(service.service);
    const std::optional<std::wstring> clsid = CanonicalClsid(request.clsid);
    if (!clsid)
    {
        ThrowUsage(
            L"'" + request.clsid + L"' is not a CLSID: give it as {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}");
    }
    request.clsid = *clsid;
    request.module = CheckedModule(request.module);
    std::wstring host = CheckedHost(request.host);

    const CGroupStore store;
    CheckNoOtherGroup(store, service);
    if (!request.replaceModule)
    {
        CheckClassIsFree(store, service, request.clsid, request.module);
    }
    std::optional<ServiceConfig> entry = CServiceManager(SC_MANAGER_CONNECT).FindConfig(service.service);
    if (entry)
    {
        CheckEntryIsOurs(*entry, service);
    }
    else if (!request.options.recovery && !request.options.recoversFromErrors)
    {
        request.options.recovery = RestartAfterFailures();
        request.options.recoversFromErrors = true;
    }
    return {std::move(request), std::move(host), std::move(entry)};
}

void CarryOut(
    const InstallPlan& plan, const std::wstring& password, CRegistryChange& change, IConsole& console)
{
    const InstallRequest& request = plan.request;
    const CGroupStore store;
    const std::optional<std::wstring> oldClsid = store.Clsid(request.service.group, request.service.service);
    store.RegisterClass(change, request.clsid, request.module);
    store.AddService(change, request.service, request.clsid);
    RegisterEventSource(change, plan.host);
    if (oldClsid && !IsSameName(*oldClsid, request.clsid))
    {
        UnregisterUnusedClass(store, change, oldClsid, request.service);
    }
    WriteEntry(plan, password, change, console);
}

void SayWhenSettingsApply(const std::wstring& subject, const std::wstring& service, IConsole& console)
{
    const std::optional<ServiceState> state = CServiceManager(SC_MANAGER_CONNECT).FindState(service);
    if (state && state->state != SERVICE_STOPPED)
    {
        console.Done(
            subject + L" is " + DescribeState(*state) + L": the new settings apply from its next start.");
    }
}

void InstallService(const InstallRequest& request, IConsole& console)
{
    const GroupService& service = request.service;
    // Looked at twice: nobody types a password in vain, and none keeps the others out while he types.
    static_cast<void>(PlanInstallation(request));
    const std::wstring password = PasswordFor(request.options.account, console);
    const CExclusive exclusive;
    const InstallPlan plan = PlanInstallation(request);
    EnsureViewLink(request.replaceKey, console);
    AllOrNothing([&](CRegistryChange& change) { CarryOut(plan, password, change, console); });
    console.Done((plan.entry ? L"Updated " : L"Installed ") + Quoted(service) + L".");
    SayWhenSettingsApply(L"It", service.service, console);
}

void RemoveService(const GroupService& service, IConsole& console)
{
    CheckGroupName(service.group);
    CheckServiceName(service.service);
    const CExclusive exclusive;
    const CGroupStore store;
    const CServiceManager manager(SC_MANAGER_CONNECT);
    const std::optional<std::wstring> clsid = store.Clsid(service.group, service.service);
    const std::optional<ServiceConfig> entry = manager.FindConfig(service.service);
    const bool isOurs = entry && RunsGroup(ParseImagePath(entry->imagePath), service.group);
    if (!clsid && !isOurs && !store.FindService(service.group, service.service))
    {
        ThrowFailed(L"there is no " + Quoted(service));
    }
    const std::optional<ServiceState> state = isOurs ? manager.FindState(service.service) : std::nullopt;
    if (state && state->state != SERVICE_STOPPED)
    {
        ThrowFailed(
            L"the service '" + service.service + L"' is " + DescribeState(*state) + L": stop it first");
    }

    AllOrNothing([&](CRegistryChange& change) {
        UnregisterUnusedClass(store, change, clsid, service);
        store.RemoveService(change, service);
        if (!store.HasServices())
        {
            UnregisterEventSource(change);
        }
        if (isOurs)
        {
            manager.Delete(service.service); // Last: a deleted service cannot be brought back as it was.
        }
    });
    console.Done(L"Removed " + Quoted(service) + L".");
    if (entry && !isOurs)
    {
        console.Note(
            L"the service manager's entry '" + service.service + L"' stays: it does not run this group but " +
            entry->imagePath);
    }
}

} // namespace TxCtl
