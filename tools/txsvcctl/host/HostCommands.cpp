#include "txsvcctl/host/HostCommands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/Text.h"
#include "contract/Keys.h"
#include "contract/WorkingSetEvent.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/Table.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ServiceManager.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> name;
    std::string value;
    bool reset = false;
    bool json = false;

    [[nodiscard]] std::wstring Name() const { return FromUtf8(name.value_or("")); }
};

std::vector<Cell> SettingRow(const HostSettingReport& report)
{
    return {
        {report.setting.name},
        {std::to_wstring(report.value)},
        {report.isDefault ? L"default" : L"registry"},
        {Basalt::FormatText(
            L"%u to %u, default %u",
            report.setting.minimum,
            report.setting.maximum,
            report.setting.fallback)},
        {report.problem, Tone::Bad}};
}

ordered_json SettingAsJson(const HostSettingReport& report)
{
    return {
        {"name", ToUtf8(report.setting.name)},
        {"value", report.value},
        {"isDefault", report.isDefault},
        {"minimum", report.setting.minimum},
        {"maximum", report.setting.maximum},
        {"default", report.setting.fallback},
        {"problem", ToUtf8(report.problem)}};
}

void ShowSettings(const Arguments& arguments, IConsole& console)
{
    WarnAboutViewLink(console);
    const CHostStore store;
    ordered_json all = ordered_json::array();
    std::vector<std::vector<Cell>> rows;
    for (const Contract::HostSetting& setting : CHostStore::Settings())
    {
        if (!arguments.name || IsSameName(arguments.Name(), setting.name))
        {
            const HostSettingReport report = store.Get(setting.name);
            all.push_back(SettingAsJson(report));
            rows.push_back(SettingRow(report));
        }
    }
    if (all.empty())
    {
        static_cast<void>(store.Get(arguments.Name())); // Throws: there is no such setting.
    }
    console.Out(
        arguments.json ? FromUtf8(ordered_json{{"version", 1}, {"settings", all}}.dump(2))
                       : FormatTable(rows, console));
}

void ReportChange(const CHostStore& store, const std::wstring& name, IConsole& console)
{
    const HostSettingReport report = store.Get(name);
    console.Done(
        std::wstring(report.setting.name) +
        Basalt::FormatText(L" is now %u; hosts read it when they start.", report.value));
}

void AddConfig(CLI::App& app, IConsole& console)
{
    CLI::App* const command = app.add_subcommand("config", "Show and change the settings of all hosts");
    command->require_subcommand(1);
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const get = command->add_subcommand("get", "Show settings, their ranges and defaults");
    get->add_option("name", arguments->name, "Show this setting only");
    get->add_flag("--json", arguments->json, "Write JSON");
    get->callback([arguments, &console] { ShowSettings(*arguments, console); });
    CLI::App* const set = command->add_subcommand("set", "Change a setting");
    set->add_option("name", arguments->name, "The setting")->required();
    set->add_option("value", arguments->value, "Its value, a number")->required();
    set->callback([arguments, &console] {
        const CHostStore store;
        CRegistryChange change;
        store.Set(change, arguments->Name(), FromUtf8(arguments->value));
        change.Commit();
        ReportChange(store, arguments->Name(), console);
    });
    CLI::App* const unset = command->add_subcommand("unset", "Take a setting back to its default");
    unset->add_option("name", arguments->name, "The setting")->required();
    unset->callback([arguments, &console] {
        const CHostStore store;
        store.Unset(arguments->Name());
        ReportChange(store, arguments->Name(), console);
    });
}

/// The group's name as the registry has it.
std::wstring GroupNamed(const std::wstring& name)
{
    for (std::wstring& group : CGroupStore().Groups())
    {
        if (IsSameName(group, name))
        {
            return std::move(group);
        }
    }
    ThrowFailed(L"there is no group '" + name + L"'");
}

void AddBand(CLI::App& app, IConsole& console)
{
    CLI::App* const command = app.add_subcommand("band", "Show the working-set size that a group has learnt");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("group", arguments->name, "Name of the service group")->required();
    command->add_flag("--reset", arguments->reset, "Have the group learn it anew");
    command->add_flag("--json", arguments->json, "Write JSON");
    command->callback([arguments, &console] {
        const CHostStore store;
        const std::wstring group = GroupNamed(arguments->Name());
        if (arguments->reset)
        {
            store.ResetBand(group);
            console.Done(
                L"Group '" + group + L"' learns its band anew; a running host of it still has the old one.");
            return;
        }
        const std::optional<LearntBand> band = store.Band(group);
        if (arguments->json)
        {
            const ordered_json json = {{"version", 1}, {"group", ToUtf8(group)}, {"band", BandAsJson(band)}};
            console.Out(FromUtf8(json.dump(2)));
            return;
        }
        console.Out(band ? FormatBand(*band) : L"Nothing is learnt yet.");
    });
}

std::set<DWORD> ProcessesOf(const std::wstring& group)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    std::set<DWORD> processes;
    for (const std::wstring& service : CGroupStore().Services(group))
    {
        const std::optional<ServiceState> state = manager.FindState(service);
        if (state && state->processId != 0)
        {
            processes.insert(state->processId);
        }
    }
    return processes;
}

void AddTrim(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("trim", "Have a group's host give memory back that it can spare");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("group", arguments->name, "Name of the service group")->required();
    command->callback([arguments, &console] {
        const std::wstring group = GroupNamed(arguments->Name());
        const std::set<DWORD> processes = ProcessesOf(group);
        if (processes.empty())
        {
            ThrowFailed(L"the group '" + group + L"' does not run");
        }
        for (const DWORD process : processes)
        {
            const std::wstring number = std::to_wstring(process);
            const Basalt::CHandle event(
                ::OpenEventW(EVENT_MODIFY_STATE, FALSE, Contract::WorkingSetEventName(process).data()));
            if (!event || !::SetEvent(event.Get()))
            {
                ThrowFailure(L"trim process", number, ::GetLastError());
            }
            console.Done(L"process " + number + L" is trimming");
        }
    });
}

std::wstring DescribeGating(bool isJson)
{
    const CHostStore store;
    const bool isRequired = store.Get(Contract::kOobeCheckValue).value != 0;
    std::wstring text = isRequired ? L"Services wait for the first-run set-up unless they are excluded."
                                   : L"The first-run set-up is over: no service waits.";
    ordered_json excluded = ordered_json::array();
    for (const std::wstring& group : CGroupStore().Groups())
    {
        for (const std::wstring& name : store.Excluded(group))
        {
            text += L"\n" + group + L"/" + name + L": excluded";
            excluded.push_back({{"group", ToUtf8(group)}, {"service", ToUtf8(name)}});
        }
    }
    const ordered_json json = {{"version", 1}, {"isRequired", isRequired}, {"excluded", excluded}};
    return isJson ? FromUtf8(json.dump(2)) : text;
}

/// The groups that have the service.
std::vector<std::wstring> GroupsOf(const std::wstring& service)
{
    const CGroupStore store;
    std::vector<std::wstring> groups = store.Groups();
    std::erase_if(groups, [&](const std::wstring& group) { return !store.FindService(group, service); });
    if (groups.empty())
    {
        ThrowFailed(L"no group has a service '" + service + L"'");
    }
    return groups;
}

void AddOobe(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("oobe", "Show and change which services do not wait for the first-run set-up");
    const auto arguments = std::make_shared<Arguments>();
    const auto add = [&](const char* name, const char* description, auto change) {
        CLI::App* const one = command->add_subcommand(name, description);
        one->add_option("service", arguments->name, "Name of the service")->required();
        one->callback([arguments, change, &console] {
            for (const std::wstring& group : GroupsOf(arguments->Name()))
            {
                CRegistryChange registry;
                (CHostStore().*change)(registry, group, arguments->Name());
                registry.Commit();
            }
            console.Done(DescribeGating(false));
        });
    };
    add("exclude", "Let a service run before the set-up", &CHostStore::Exclude);
    add("include", "Have a service wait for the set-up", &CHostStore::Include);
    command->add_flag("--json", arguments->json, "Write JSON");
    command->callback([command, arguments, &console] {
        if (command->get_subcommands().empty())
        {
            console.Out(DescribeGating(arguments->json));
        }
    });
}

} // namespace

void AddHostCommands(CLI::App& app, IConsole& console)
{
    AddConfig(app, console);
    AddBand(app, console);
    AddOobe(app, console);
    AddTrim(app, console);
}

} // namespace TxCtl
