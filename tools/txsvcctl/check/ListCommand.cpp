#include "txsvcctl/check/ListCommand.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/check/CheckTools.h"
#include "txsvcctl/check/Findings.h"
#include "txsvcctl/common/Console.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/service/EntryWords.h"
#include "txsvcctl/service/ServiceList.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> group;
    bool json = false;
};

/// What is wrong with a group and its services; notes are left out.
void AddProblems(GroupReport& group)
{
    CFindings findings;
    CheckGroup(group, {}, findings);
    for (const Finding& finding : findings.All())
    {
        if (finding.kind->severity == Severity::Note)
        {
            continue;
        }
        const std::wstring title = FindingName(finding.kind->id) + L" " + finding.kind->title + L": ";
        const auto service = std::ranges::find_if(group.services, [&](const ServiceReport& one) {
            return ServiceSubject(group.name, one.name) == finding.subject;
        });
        if (service != group.services.end())
        {
            service->problems.push_back(title + finding.detail);
        }
        else
        {
            const bool isGroup = finding.subject == group.name;
            group.problems.push_back(title + (isGroup ? L"" : finding.subject + L": ") + finding.detail);
        }
    }
}

void AppendProblems(
    std::wstring& text, const wchar_t* indent, const std::vector<std::wstring>& problems, IConsole& console)
{
    for (const std::wstring& problem : problems)
    {
        text += L"\n" + (indent + console.Toned(L"problem", Tone::Bad) + L"  " + problem);
    }
}

void AppendService(std::wstring& text, const ServiceReport& service, IConsole& console)
{
    text += L"\n  " + service.name;
    if (service.state)
    {
        text += L"\n    state    " + DescribeState(*service.state);
    }
    if (service.entry)
    {
        text += L"\n    start    " + WordOf(kStartTypes, service.entry->startType);
    }
    if (service.clsid)
    {
        text += L"\n    clsid    " + *service.clsid;
    }
    if (service.module)
    {
        text += L"\n    module   " + *service.module;
    }
    if (const auto version = ModuleVersion(service))
    {
        text += L"\n    version  " + *version;
    }
    AppendProblems(text, L"    ", service.problems, console);
}

ordered_json TextOrNull(const std::optional<std::wstring>& text)
{
    return text ? ordered_json(ToUtf8(*text)) : ordered_json(nullptr);
}

ordered_json TextArray(const std::vector<std::wstring>& texts)
{
    ordered_json array = ordered_json::array();
    for (const std::wstring& text : texts)
    {
        array.push_back(ToUtf8(text));
    }
    return array;
}

ordered_json ServiceAsJson(const ServiceReport& service)
{
    ordered_json json;
    json["name"] = ToUtf8(service.name);
    json["clsid"] = TextOrNull(service.clsid);
    json["module"] = TextOrNull(service.module);
    json["moduleVersion"] = TextOrNull(ModuleVersion(service));
    json["displayName"] = service.entry ? ordered_json(ToUtf8(service.entry->displayName)) : ordered_json();
    json["imagePath"] = service.entry ? ordered_json(ToUtf8(service.entry->imagePath)) : ordered_json();
    json["start"] =
        service.entry ? ordered_json(ToUtf8(WordOf(kStartTypes, service.entry->startType))) : ordered_json();
    json["state"] = service.state ? ordered_json(ToUtf8(StateName(*service.state))) : ordered_json();
    json["stateNumber"] = service.state ? ordered_json(service.state->state) : ordered_json();
    json["processId"] = service.state ? ordered_json(service.state->processId) : ordered_json();
    json["problems"] = TextArray(service.problems);
    return json;
}

std::wstring FormatReport(const std::vector<GroupReport>& groups, IConsole& console)
{
    if (groups.empty())
    {
        return L"There are no groups.";
    }
    std::wstring text;
    for (const GroupReport& group : groups)
    {
        text += (text.empty() ? L"Group " : L"\nGroup ") + group.name;
        AppendProblems(text, L"  ", group.problems, console);
        for (const ServiceReport& service : group.services)
        {
            AppendService(text, service, console);
        }
    }
    return text;
}

ordered_json ReportAsJson(const std::vector<GroupReport>& groups)
{
    ordered_json array = ordered_json::array();
    for (const GroupReport& group : groups)
    {
        ordered_json services = ordered_json::array();
        for (const ServiceReport& service : group.services)
        {
            services.push_back(ServiceAsJson(service));
        }
        ordered_json json;
        json["name"] = ToUtf8(group.name);
        json["services"] = std::move(services);
        json["problems"] = TextArray(group.problems);
        array.push_back(std::move(json));
    }
    return {{"version", 1}, {"groups", std::move(array)}};
}

} // namespace

void AddListCommand(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("list", "Show groups and services, and what is wrong with them");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("group", arguments->group, "Show this group only");
    command->add_flag("--json", arguments->json, "Write JSON");
    command->callback([arguments, &console] {
        WarnAboutViewLink(console);
        std::vector<GroupReport> groups = ReportGroups(OptionalFromUtf8(arguments->group));
        std::ranges::for_each(groups, AddProblems);
        console.Out(arguments->json ? FromUtf8(ReportAsJson(groups).dump(2)) : FormatReport(groups, console));
    });
}

} // namespace TxCtl
