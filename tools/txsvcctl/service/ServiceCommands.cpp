#include "txsvcctl/service/ServiceCommands.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "txsvcctl/common/Progress.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/service/EntryWords.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ServiceInstaller.h"
#include "txsvcctl/service/ServiceList.h"
#include "txsvcctl/service/ServiceManager.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

constexpr DWORD kDefaultTimeoutSeconds = 30;
constexpr DWORD kLongestTimeoutSeconds = 3600;

constexpr char kAutoStart[] = "auto";
constexpr char kManualStart[] = "manual";
constexpr char kDelayedStart[] = "delayed";

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
    bool json = false;
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
        ->check(CLI::IsMember({"none", "unrestricted", "restricted"}));
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
    if (arguments.preshutdownSeconds)
    {
        options.preshutdownMs = *arguments.preshutdownSeconds * 1000;
    }
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
        options.sidType = NumberOf(kSidTypes, FromUtf8(*arguments.sidType));
    }
    if (arguments.hasRecovery || arguments.hasNoRecovery)
    {
        options.recovery = arguments.hasRecovery ? RestartAfterFailures() : NoRecovery();
        options.recoversFromErrors = arguments.hasRecovery;
        options.isRecoveryAsked = true;
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

/// What became of services one after the other; a failure does not keep the rest from its turn.
class COutcomes
{
public:
    COutcomes(bool isJson, IConsole& console) : m_isJson(isJson), m_console(console) {}

    /// @param what is done with it, for whoever looks on.
    /// @param operation returns the service's state.
    template <typename Operation, typename Explain>
    void Add(
        const std::wstring& name, const wchar_t* what, const Operation& operation, const Explain& explain)
    {
        try
        {
            ServiceState state;
            RunWithProgress(m_console, name + L": " + what, [&] { state = operation(); });
            report(name, state);
        }
        catch (const CToolError& error)
        {
            ReportError(m_console, error);
            explain(name);
            m_hasFailed = true;
            m_services[name] = {
                {"name", ToUtf8(name)},
                {"state", nullptr},
                {"stateNumber", nullptr},
                {"processId", nullptr},
                {"error", ToUtf8(error.Text())}};
        }
    }

    [[nodiscard]] bool HasFailed() const noexcept { return m_hasFailed; }

    /// @throws CToolError without a text when something has failed.
    void Finish() const
    {
        if (m_isJson)
        {
            ordered_json services = ordered_json::array();
            for (const auto& [name, service] : m_services)
            {
                services.push_back(service);
            }
            m_console.Out(FromUtf8(ordered_json{{"version", 1}, {"services", services}}.dump(2)));
        }
        if (m_hasFailed)
        {
            throw CToolError(ExitCode::Failed, {});
        }
    }

private:
    void report(const std::wstring& name, const ServiceState& state)
    {
        m_services[name] = {
            {"name", ToUtf8(name)},
            {"state", ToUtf8(StateName(state))},
            {"stateNumber", state.state},
            {"processId", state.processId},
            {"error", nullptr}};
        if (!m_isJson)
        {
            m_console.Done(name + L": " + DescribeState(state));
        }
    }

    bool m_isJson;
    IConsole& m_console;
    bool m_hasFailed = false;
    std::map<std::wstring, ordered_json> m_services; ///< As they are last seen.
};

using Explain = std::function<void(const std::wstring& service)>;

/// What start, stop and restart are told.
struct ControlRequest
{
    std::vector<std::wstring> names;
    DWORD timeoutMs;
    Explain explain;
};

/// @param perform gets the request and takes down what becomes of each service.
void AddControl(
    CLI::App& app,
    IConsole& console,
    const Explain& explain,
    const char* name,
    const char* description,
    void (*perform)(const ControlRequest& request, COutcomes& outcomes))
{
    CLI::App* const command = app.add_subcommand(name, description);
    const auto arguments = std::make_shared<Arguments>();
    CLI::Option* const services = command->add_option("services", arguments->services, "Names of services");
    command->add_option("--group", arguments->onlyGroup, "All services of this group")->excludes(services);
    command->add_option("--timeout", arguments->timeoutSeconds, "Seconds to wait for each service [30]")
        ->check(CLI::Range(DWORD{1}, kLongestTimeoutSeconds));
    command->add_flag("--json", arguments->json, "Write JSON");
    command->callback([arguments, &console, explain, perform] {
        COutcomes outcomes(arguments->json, console);
        perform({ServicesOf(*arguments), arguments->timeoutSeconds * 1000, explain}, outcomes);
        outcomes.Finish();
    });
}

void StartServices(const ControlRequest& request, COutcomes& outcomes)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    for (const std::wstring& name : request.names)
    {
        outcomes.Add(
            name, L"starting", [&] { return manager.Start(name, request.timeoutMs); }, request.explain);
    }
}

/// In reverse: what was started first may serve the others until they are gone.
void StopServices(const ControlRequest& request, COutcomes& outcomes)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    for (auto name = request.names.rbegin(); name != request.names.rend(); ++name)
    {
        outcomes.Add(
            *name,
            L"stopping",
            [&] { return manager.Stop(*name, request.timeoutMs); },
            [](const std::wstring& /*service*/) {});
    }
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
void RestartServices(const ControlRequest& request, COutcomes& outcomes)
{
    constexpr DWORD kEndMs = 2000;
    const std::vector<Basalt::CHandle> processes = ProcessesOf(request.names);
    StopServices(request, outcomes);
    if (outcomes.HasFailed())
    {
        return;
    }
    for (const Basalt::CHandle& process : processes)
    {
        static_cast<void>(::WaitForSingleObject(process.Get(), kEndMs));
    }
    StartServices(request, outcomes);
}

} // namespace

void AddServiceCommands(CLI::App& app, IConsole& console, const Explain& explain)
{
    AddInstall(app, console);
    AddRemove(app, console);
    AddControl(app, console, explain, "start", "Start services and wait until they run", &StartServices);
    AddControl(
        app, console, explain, "restart", "Stop services, wait for their end, start them", &RestartServices);
    AddControl(app, console, explain, "stop", "Stop services and wait until they are stopped", &StopServices);
}

} // namespace TxCtl
