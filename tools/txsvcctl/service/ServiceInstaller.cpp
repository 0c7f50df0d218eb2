#include "txsvcctl/service/ServiceInstaller.h"

#include <utility>

#include "base/Owned.h"
#include "base/Paths.h"
#include "contract/CommandLine.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/service/EventSource.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ModuleFile.h"
#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kMutexName[] = L"Global\\TarvexTxSvcCtl";
constexpr DWORD kMutexTimeoutMs = 30000;

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

/// Keeps other runs of this program out: both would read a group's list, and the second to write would lose
/// the name that the first one added.
class CExclusive
{
public:
    CExclusive() : m_mutex(::CreateMutexW(nullptr, FALSE, kMutexName))
    {
        if (!m_mutex)
        {
            ThrowFailure(L"create mutex", kMutexName, ::GetLastError());
        }
        const DWORD result = ::WaitForSingleObject(m_mutex.Get(), kMutexTimeoutMs);
        if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED)
        {
            ThrowFailed(L"another txsvcctl is changing services; try again when it has ended");
        }
    }
    ~CExclusive() { ::ReleaseMutex(m_mutex.Get()); }
    CExclusive(const CExclusive&) = delete;
    CExclusive& operator=(const CExclusive&) = delete;

private:
    Basalt::CHandle m_mutex;
};

/// Runs steps that all record themselves in the change, and undoes them when one fails.
template <typename Steps>
void AllOrNothing(Steps steps)
{
    CRegistryChange change;
    try
    {
        steps(change);
    }
    catch (const CToolError& error)
    {
        std::wstring text = error.Text();
        const std::vector<std::wstring> leftOvers = change.Rollback();
        text += leftOvers.empty() ? L"\nAll changes were undone." : L"\nThe changes were undone, but for:";
        for (const std::wstring& leftOver : leftOvers)
        {
            text += L"\n  " + leftOver;
        }
        throw CToolError(error.Code(), std::move(text));
    }
    change.Commit();
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

/// A new entry goes again when its options are refused.
template <typename ApplyOptions>
void WriteEntry(
    const CServiceManager& manager,
    const std::wstring& name,
    const ServiceSettings& settings,
    bool isThere,
    ApplyOptions applyOptions)
{
    isThere ? manager.Change(name, settings) : manager.Create(name, settings);
    try
    {
        applyOptions();
    }
    catch (const CToolError&)
    {
        isThere ? void() : manager.Delete(name);
        throw;
    }
}

/// Asked for before anything is changed.
std::wstring PasswordFor(const std::optional<std::wstring>& account, IConsole& console)
{
    return account && !NeedsNoPassword(*account) ? ReadPassword(*account, console) : std::wstring();
}

} // namespace

void InstallService(const InstallRequest& request, IConsole& console)
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
    const std::wstring module = CheckedModule(request.module);
    const std::wstring host = CheckedHost(request.host);
    const std::wstring password = PasswordFor(request.options.account, console);

    const CExclusive exclusive;
    const CGroupStore store;
    CheckNoOtherGroup(store, service);
    if (!request.replaceModule)
    {
        CheckClassIsFree(store, service, *clsid, module);
    }
    const CServiceManager manager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    const std::optional<ServiceConfig> entry = manager.FindConfig(service.service);
    if (entry)
    {
        CheckEntryIsOurs(*entry, service);
    }
    EnsureViewLink(request.replaceKey, console);

    EntryOptions options = request.options;
    if (!entry && !options.isRestarted)
    {
        options.isRestarted = true;
    }
    AllOrNothing([&](CRegistryChange& change) {
        const std::optional<std::wstring> oldClsid = store.Clsid(service.group, service.service);
        store.RegisterClass(change, *clsid, module);
        store.AddService(change, service, *clsid);
        RegisterEventSource(change, host);
        if (oldClsid && !IsSameName(*oldClsid, *clsid))
        {
            UnregisterUnusedClass(store, change, oldClsid, service);
        }
        // Last, so that the registry alone ever needs undoing.
        const ServiceSettings settings{
            FormatImagePath(host, service.group), request.displayName, request.startType};
        WriteEntry(manager, service.service, settings, static_cast<bool>(entry), [&] {
            ApplyEntryOptions(service.service, options, password, console);
        });
    });
    console.Out((entry ? L"Updated " : L"Installed ") + Quoted(service) + L".");
    const std::optional<ServiceState> state = manager.FindState(service.service);
    if (state && state->state != SERVICE_STOPPED)
    {
        console.Out(L"It is " + DescribeState(*state) + L": the new settings apply from its next start.");
    }
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
    console.Out(L"Removed " + Quoted(service) + L".");
    if (entry && !isOurs)
    {
        console.Error(
            L"note: the service manager's entry '" + service.service +
            L"' stays: it does not run this group but " + entry->imagePath);
    }
}

} // namespace TxCtl
