#include "txsvcctl/host/StatusCommand.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Text.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/Table.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ProcessFigures.h"
#include "txsvcctl/service/ServiceList.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> name;
    bool json = false;
    bool watch = false;
};

/// A group, or the part of it that was asked for, at one moment.
struct GroupStatus
{
    GroupReport report;
    std::optional<LearntBand> band;
    std::map<DWORD, ProcessFigures> processes;
};

/// Why a stopped service does not run, as far as its entry, the group's key and the update manager tell.
std::wstring ReasonOf(const std::wstring& group, const ServiceReport& service)
{
    if (!service.state || service.state->state != SERVICE_STOPPED)
    {
        return {};
    }
    if (service.state->exitCode == ERROR_SERVICE_NEVER_STARTED)
    {
        return L"was never started";
    }
    if (service.state->exitCode != NO_ERROR)
    {
        return L"ended with " + DescribeExit(*service.state);
    }
    if (IsUpdateRunning())
    {
        return L"an update is running";
    }
    return CHostStore().WaitForFirstRun(group, {service.name}).empty()
               ? L"ended without an error"
               : L"ended without an error, or waits for the first-run set-up";
}

GroupStatus StatusOf(GroupReport report)
{
    GroupStatus status;
    status.band = CHostStore().Band(report.name);
    for (const ServiceReport& service : report.services)
    {
        const DWORD id = service.state ? service.state->processId : 0;
        const std::optional<ProcessFigures> figures = id == 0 ? std::nullopt : FiguresOf(id);
        if (figures)
        {
            status.processes[id] = *figures;
        }
    }
    status.report = std::move(report);
    return status;
}

/// @param name of a group or a service; empty for everything.
std::vector<GroupStatus> Look(const std::wstring& name)
{
    std::vector<GroupStatus> all;
    for (GroupReport& group : ReportGroups(std::nullopt))
    {
        if (!name.empty() && !IsSameName(group.name, name))
        {
            std::erase_if(group.services, [&name](const ServiceReport& service) {
                return !IsSameName(service.name, name);
            });
            if (group.services.empty())
            {
                continue;
            }
        }
        all.push_back(StatusOf(std::move(group)));
    }
    if (all.empty() && !name.empty())
    {
        ThrowFailed(L"there is no group or service '" + name + L"'");
    }
    return all;
}

std::wstring Duration(double seconds)
{
    constexpr ULONGLONG kMinute = 60;
    constexpr ULONGLONG kHour = 60 * kMinute;
    constexpr ULONGLONG kDay = 24 * kHour;
    const auto whole = static_cast<ULONGLONG>(seconds);
    const std::wstring days = whole < kDay ? L"" : std::to_wstring(whole / kDay) + L"d ";
    return days +
           Basalt::FormatText(
               L"%02llu:%02llu:%02llu", whole % kDay / kHour, whole % kHour / kMinute, whole % kMinute);
}

/// A figure, marked when it has grown since it was last looked at.
std::wstring Marked(const std::wstring& text, double now, double before)
{
    return before != 0 && now > before ? text + L"+" : text;
}

std::wstring FormatProcess(DWORD id, const ProcessFigures& now, const ProcessFigures& before)
{
    const auto marked = [&](const std::wstring& text, auto member) {
        return Marked(text, static_cast<double>(now.*member), static_cast<double>(before.*member));
    };
    return Basalt::FormatText(L"\n  process %u: ", id) +
           marked(InMiB(static_cast<double>(now.privateBytes)), &ProcessFigures::privateBytes) +
           L" private, " +
           marked(InMiB(static_cast<double>(now.workingSetBytes)), &ProcessFigures::workingSetBytes) +
           L" working set, " + marked(std::to_wstring(now.threads), &ProcessFigures::threads) +
           L" threads, " + marked(std::to_wstring(now.handles), &ProcessFigures::handles) +
           L" handles, CPU " + Basalt::FormatText(L"%.2f s", now.cpuSeconds) + L", up " +
           Duration(now.upSeconds);
}

Tone ToneOf(const ServiceReport& service)
{
    if (!service.state)
    {
        return Tone::Bad;
    }
    switch (service.state->state)
    {
    case SERVICE_RUNNING:
        return Tone::Good;
    case SERVICE_STOPPED:
        return service.state->exitCode == NO_ERROR || service.state->exitCode == ERROR_SERVICE_NEVER_STARTED
                   ? Tone::Plain
                   : Tone::Bad;
    default:
        return Tone::Doubtful;
    }
}

std::wstring FormatServices(const GroupReport& group, IConsole& console)
{
    std::vector<std::vector<Cell>> rows;
    for (const ServiceReport& service : group.services)
    {
        const std::wstring reason = ReasonOf(group.name, service);
        rows.push_back(
            {{service.name + L":"},
             {(service.state ? DescribeState(*service.state) : L"no entry in the service manager") +
                  (reason.empty() ? L"" : L", " + reason),
              ToneOf(service)}});
    }
    return rows.empty() ? L"" : L"\n" + FormatTable(rows, console, L"  ");
}

std::wstring Format(
    const std::vector<GroupStatus>& groups, const std::map<DWORD, ProcessFigures>& before, IConsole& console)
{
    if (groups.empty())
    {
        return L"There are no groups.";
    }
    std::wstring text;
    for (const GroupStatus& group : groups)
    {
        text += (text.empty() ? L"Group " : L"\nGroup ") + group.report.name;
        if (group.band)
        {
            text += L", band " + FormatBand(*group.band);
        }
        for (const auto& [id, figures] : group.processes)
        {
            const auto last = before.find(id);
            text += FormatProcess(id, figures, last == before.end() ? ProcessFigures{} : last->second);
        }
        text += FormatServices(group.report, console);
    }
    return text;
}

/// As in ISO 8601.
std::wstring UniversalTime(const FILETIME& time)
{
    SYSTEMTIME parts{};
    ::FileTimeToSystemTime(&time, &parts);
    return Basalt::FormatText(
        L"%04hu-%02hu-%02huT%02hu:%02hu:%02huZ",
        parts.wYear,
        parts.wMonth,
        parts.wDay,
        parts.wHour,
        parts.wMinute,
        parts.wSecond);
}

ordered_json ProcessAsJson(DWORD id, const ProcessFigures& figures)
{
    return {
        {"id", id},
        {"privateBytes", figures.privateBytes},
        {"workingSetBytes", figures.workingSetBytes},
        {"threads", figures.threads},
        {"handles", figures.handles},
        {"cpuSeconds", figures.cpuSeconds},
        {"upSeconds", figures.upSeconds},
        {"started", ToUtf8(UniversalTime(figures.started))}};
}

ordered_json ServiceAsJson(const std::wstring& group, const ServiceReport& service)
{
    const auto text = [](const std::optional<std::wstring>& value) {
        return value ? ordered_json(ToUtf8(*value)) : ordered_json();
    };
    ordered_json json = {
        {"name", ToUtf8(service.name)},
        {"state", nullptr},
        {"stateNumber", nullptr},
        {"processId", nullptr},
        {"reason", ToUtf8(ReasonOf(group, service))},
        {"clsid", text(service.clsid)},
        {"module", text(service.module)},
        {"moduleVersion", text(ModuleVersion(service))}};
    if (service.state)
    {
        json["state"] = ToUtf8(StateName(*service.state));
        json["stateNumber"] = service.state->state;
        json["processId"] = service.state->processId;
    }
    return json;
}

ordered_json AsJson(const std::vector<GroupStatus>& groups)
{
    ordered_json array = ordered_json::array();
    for (const GroupStatus& group : groups)
    {
        ordered_json json = {{"name", ToUtf8(group.report.name)}, {"band", BandAsJson(group.band)}};
        json["processes"] = ordered_json::array();
        for (const auto& [id, figures] : group.processes)
        {
            json["processes"].push_back(ProcessAsJson(id, figures));
        }
        json["services"] = ordered_json::array();
        for (const ServiceReport& service : group.report.services)
        {
            json["services"].push_back(ServiceAsJson(group.report.name, service));
        }
        array.push_back(std::move(json));
    }
    return {{"version", 1}, {"groups", std::move(array)}};
}

/// In place in a console that can do it, appended otherwise, until the output's reader is gone. Ctrl+C ends
/// the program as it ends any other.
void Watch(const std::wstring& name, bool isJson, IConsole& console)
{
    constexpr DWORD kPeriodMs = 2000;
    std::map<DWORD, ProcessFigures> before;
    while (!console.HasFailed())
    {
        const std::vector<GroupStatus> groups = Look(name);
        if (isJson)
        {
            console.Out(FromUtf8(AsJson(groups).dump()));
        }
        else
        {
            console.Repaint(Format(groups, before, console));
        }
        before.clear();
        for (const GroupStatus& group : groups)
        {
            before.insert(group.processes.begin(), group.processes.end());
        }
        ::Sleep(kPeriodMs);
    }
}

} // namespace

void AddStatusCommand(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("status", "Show what runs, what it uses, and why it does not run");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("name", arguments->name, "A group or a service [everything]");
    command->add_flag("--watch", arguments->watch, "Look again every two seconds; + marks what has grown");
    command->add_flag("--json", arguments->json, "Write JSON, with --watch one line each time");
    command->callback([arguments, &console] {
        WarnAboutViewLink(console);
        const std::wstring name = FromUtf8(arguments->name.value_or(""));
        if (arguments->watch)
        {
            Watch(name, arguments->json, console);
            return;
        }
        const std::vector<GroupStatus> groups = Look(name);
        console.Out(arguments->json ? FromUtf8(AsJson(groups).dump(2)) : Format(groups, {}, console));
    });
}

} // namespace TxCtl
