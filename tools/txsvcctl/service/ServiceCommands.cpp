#include "txsvcctl/service/ServiceCommands.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ServiceInstaller.h"
#include "txsvcctl/service/ServiceList.h"
#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

namespace
{

constexpr DWORD kDefaultTimeoutSeconds = 30;
constexpr DWORD kLongestTimeoutSeconds = 3600;

constexpr char kAutoStart[] = "auto";
constexpr char kManualStart[] = "manual";
constexpr char kDelayedStart[] = "delayed";

/// In the order of the SERVICE_SID_TYPE_... numbers; the last one is 3.
constexpr const char* kSidTypes[] = {"none", "unrestricted", "restricted"};

/// What the command-line library fills: its texts are UTF-8. An option that was not given stays empty, which
/// an option that was given need not be.
struct Arguments
{
    std::string group;
    std::string service;
    std::string clsid;
    std::string module;
    std::optional<std::string> host;
    std::optional<std::string> displayName;
    std::optional<std::string> start;
    std::optional<std::string> onlyGroup;
    std::vector<std::string> services;
    std::optional<std::string> description;
    std::optional<std::string> account;
    std::optional<std::string> sidType;
    std::optional<DWORD> preshutdownSeconds;
    std::vector<std::string> dependencies;
    bool hasNoDependencies = false;
    bool hasRecovery = false;
    bool hasNoRecovery = false;
    DWORD timeoutSeconds = kDefaultTimeoutSeconds;
    bool replaceKey = false;
    bool replaceModule = false;
};

GroupService ServiceOf(const Arguments& arguments)
{
    return {FromUtf8(arguments.group), FromUtf8(arguments.service)};
}

void AddServiceName(CLI::App& command, Arguments& arguments)
{
    command.add_option("group", arguments.group, "Name of the service group")->required();
    command.add_option("service", arguments.service, "Name of the service")->required();
}

void AddEntryOptions(CLI::App& command, Arguments& arguments)
{
    command.add_option("--description", arguments.description, "What the service is for");
    command.add_option(
        "--account", arguments.account, "Account [LocalSystem]; its password is read, not given");
    CLI::Option* const none =
        command.add_flag("--no-depends", arguments.hasNoDependencies, "It needs no other service");
    command.add_option("--depends", arguments.dependencies, "A service that must run first; may be repeated")
        ->excludes(none);
    command.add_option("--sid", arguments.sidType, "Type of the service's SID")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(kSidTypes), std::end(kSidTypes))));
    command
        .add_option("--preshutdown", arguments.preshutdownSeconds, "Seconds that it has at the system's end")
        ->check(CLI::Range(DWORD{1}, kLongestTimeoutSeconds));
    CLI::Option* const off = command.add_flag(
        "--no-recovery", arguments.hasNoRecovery, "Do not restart the service when it fails");
    command
        .add_flag(
            "--recovery",
            arguments.hasRecovery,
            "Restart it after 5 s, 30 s, 5 min when it fails [new services]")
        ->excludes(off);
}

EntryOptions EntryOptionsOf(const Arguments& arguments)
{
    EntryOptions options;
    options.description = OptionalFromUtf8(arguments.description);
    options.account = OptionalFromUtf8(arguments.account);
    options.preshutdownSeconds = arguments.preshutdownSeconds;
    if (!arguments.dependencies.empty() || arguments.hasNoDependencies)
    {
        options.dependencies.emplace();
        for (const std::string& name : arguments.dependencies)
        {
            options.dependencies->push_back(FromUtf8(name));
        }
    }
    if (arguments.start)
    {
        options.isDelayed = *arguments.start == kDelayedStart;
    }
    if (arguments.sidType)
    {
        const auto type = std::ranges::find(kSidTypes, *arguments.sidType) - std::begin(kSidTypes);
        options.sidType = type == 2 ? DWORD{SERVICE_SID_TYPE_RESTRICTED} : static_cast<DWORD>(type);
    }
    if (arguments.hasRecovery || arguments.hasNoRecovery)
    {
        options.isRestarted = arguments.hasRecovery;
        options.isRestartAsked = true;
    }
    return options;
}

void AddInstall(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("install", "Register a service, or update what is registered");
    const auto arguments = std::make_shared<Arguments>();
    AddServiceName(*command, *arguments);
    command->add_option("--clsid", arguments->clsid, "CLSID of the service's subsystem, as {...}")
        ->required();
    command->add_option("--module", arguments->module, "64-bit DLL that holds the subsystem")->required();
    command->add_option("--host", arguments->host, "Host program [TxSvHost.exe beside this program]");
    command->add_option("--display-name", arguments->displayName, "Name that users see [the service's name]");
    command->add_option("--start", arguments->start, "When the service starts [manual]")
        ->check(CLI::IsMember({kManualStart, kAutoStart, kDelayedStart}));
    AddEntryOptions(*command, *arguments);
    command->add_flag(
        "--replace-key", arguments->replaceKey, "Replace an ordinary key HKLM\\Software\\Tarvex");
    command->add_flag(
        "--replace-module", arguments->replaceModule, "Redirect a class that has another module");
    command->callback([arguments, &console] {
        InstallRequest request;
        request.service = ServiceOf(*arguments);
        request.clsid = FromUtf8(arguments->clsid);
        request.module = FromUtf8(arguments->module);
        request.host = OptionalFromUtf8(arguments->host);
        request.displayName = OptionalFromUtf8(arguments->displayName);
        if (arguments->start)
        {
            request.startType = *arguments->start == kManualStart ? SERVICE_DEMAND_START : SERVICE_AUTO_START;
        }
        request.options = EntryOptionsOf(*arguments);
        request.replaceKey = arguments->replaceKey;
        request.replaceModule = arguments->replaceModule;
        InstallService(request, console);
    });
}

void AddRemove(CLI::App& app, IConsole& console)
{
    CLI::App* const command = app.add_subcommand("remove", "Take a stopped service out again");
    const auto arguments = std::make_shared<Arguments>();
    AddServiceName(*command, *arguments);
    command->callback([arguments, &console] { RemoveService(ServiceOf(*arguments), console); });
}

/// The services that start or stop was asked for, in the order of their list.
std::vector<std::wstring> ServicesOf(const Arguments& arguments)
{
    std::vector<std::wstring> names;
    names.reserve(arguments.services.size());
    for (const std::string& name : arguments.services)
    {
        names.push_back(FromUtf8(name));
    }
    if (arguments.onlyGroup)
    {
        const std::wstring group = FromUtf8(*arguments.onlyGroup);
        names = CGroupStore().Services(group);
        if (names.empty())
        {
            ThrowFailed(L"there is no group '" + group + L"', or it has no services");
        }
    }
    if (names.empty())
    {
        ThrowUsage(L"give the services' names, or a group with --group");
    }
    return names;
}

/// One after the other; a failure does not keep the rest from its turn.
template <typename Operation, typename Explain>
void ForEach(
    const std::vector<std::wstring>& names, IConsole& console, Operation operation, const Explain& explain)
{
    bool hasFailed = false;
    for (const std::wstring& name : names)
    {
        try
        {
            console.Out(name + L": " + DescribeState(operation(name)));
        }
        catch (const CToolError& error)
        {
            ReportError(console, error);
            explain(name);
            hasFailed = true;
        }
    }
    if (hasFailed)
    {
        throw CToolError(ExitCode::Failed, {});
    }
}

/// @param perform from the names, the console and the timeout in milliseconds.
template <typename Perform>
void AddControl(
    CLI::App& app, IConsole& console, const char* name, const char* description, const Perform& perform)
{
    CLI::App* const command = app.add_subcommand(name, description);
    const auto arguments = std::make_shared<Arguments>();
    CLI::Option* const services = command->add_option("services", arguments->services, "Names of services");
    command->add_option("--group", arguments->onlyGroup, "All services of this group")->excludes(services);
    command->add_option("--timeout", arguments->timeoutSeconds, "Seconds to wait for each service [30]")
        ->check(CLI::Range(DWORD{1}, kLongestTimeoutSeconds));
    command->callback([arguments, &console, perform] {
        perform(ServicesOf(*arguments), console, arguments->timeoutSeconds * 1000);
    });
}

using Explain = std::function<void(const std::wstring& service)>;

void StartServices(
    const std::vector<std::wstring>& names, IConsole& console, DWORD timeoutMs, const Explain& explain)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    ForEach(
        names, console, [&](const std::wstring& name) { return manager.Start(name, timeoutMs); }, explain);
}

/// In reverse: what was started first may serve the others until they are gone.
void StopServices(std::vector<std::wstring> names, IConsole& console, DWORD timeoutMs)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    std::reverse(names.begin(), names.end());
    ForEach(
        names,
        console,
        [&](const std::wstring& name) { return manager.Stop(name, timeoutMs); },
        [](const std::wstring& /*name*/) {});
}

/// Open until the processes that run the services now have ended.
std::vector<Basalt::CHandle> ProcessesOf(const std::vector<std::wstring>& names)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    std::vector<Basalt::CHandle> processes;
    for (const std::wstring& name : names)
    {
        const std::optional<ServiceState> state = manager.FindState(name);
        const DWORD id = state ? state->processId : 0;
        Basalt::CHandle process(id == 0 ? nullptr : ::OpenProcess(SYNCHRONIZE, FALSE, id));
        if (process)
        {
            processes.push_back(std::move(process));
        }
    }
    return processes;
}

/// The old process must be gone where all of its services were stopped: a start that met it would fail. One
/// that runs other services stays, which does no harm.
void RestartServices(
    const std::vector<std::wstring>& names, IConsole& console, DWORD timeoutMs, const Explain& explain)
{
    constexpr DWORD kEndMs = 2000;
    const std::vector<Basalt::CHandle> processes = ProcessesOf(names);
    StopServices(names, console, timeoutMs);
    for (const Basalt::CHandle& process : processes)
    {
        static_cast<void>(::WaitForSingleObject(process.Get(), kEndMs));
    }
    StartServices(names, console, timeoutMs, explain);
}

} // namespace

void AddServiceCommands(CLI::App& app, IConsole& console, const Explain& explain)
{
    const auto explained = [explain](auto perform) {
        return [explain, perform](const std::vector<std::wstring>& names, IConsole& output, DWORD timeoutMs) {
            perform(names, output, timeoutMs, explain);
        };
    };
    AddInstall(app, console);
    AddRemove(app, console);
    AddControl(app, console, "start", "Start services and wait until they run", explained(&StartServices));
    AddControl(
        app,
        console,
        "restart",
        "Stop services, wait for their end, start them",
        explained(&RestartServices));
    AddControl(app, console, "stop", "Stop services and wait until they are stopped", &StopServices);
}

} // namespace TxCtl
