#include "txsvcctl/service/ServiceList.h"

#include <windows.h>

#include "base/VersionInfo.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ModuleFile.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

/// Calls a step of the report; its failure is a problem of the one it reports on, not of the whole list.
template <typename Step>
void Attempt(std::vector<std::wstring>& problems, Step step)
{
    try
    {
        step();
    }
    catch (const CToolError& error)
    {
        problems.push_back(error.Text());
    }
}

void ReportModule(const std::wstring& module, ServiceReport& report)
{
    const ModuleCheck check = CheckModuleFile(module);
    if (check.fault != ModuleFault::None)
    {
        report.problems.push_back(L"the module '" + module + L"' " + DescribeModuleFault(check));
    }
    Basalt::Version version;
    if (Basalt::GetFileVersion(module, version) == ERROR_SUCCESS)
    {
        report.moduleVersion = std::to_wstring(version.major) + L"." + std::to_wstring(version.minor) + L"." +
                               std::to_wstring(version.build) + L"." + std::to_wstring(version.revision);
    }
}

void ReportClass(const CGroupStore& store, const std::wstring& group, ServiceReport& report)
{
    report.clsid = store.Clsid(group, report.name);
    if (!report.clsid)
    {
        report.problems.push_back(L"the group's key holds no CLSID for it");
        return;
    }
    if (!CanonicalClsid(*report.clsid))
    {
        report.problems.push_back(L"'" + *report.clsid + L"' is not a CLSID");
        return;
    }
    report.module = store.Module(*report.clsid);
    if (!report.module)
    {
        report.problems.push_back(L"the class is not registered");
        return;
    }
    ReportModule(*report.module, report);
}

void ReportEntry(const CServiceManager& manager, const std::wstring& group, ServiceReport& report)
{
    report.entry = manager.FindConfig(report.name);
    if (!report.entry)
    {
        report.problems.push_back(L"it has no entry in the service manager");
        return;
    }
    report.state = manager.FindState(report.name);
    if (report.entry->type != SERVICE_WIN32_SHARE_PROCESS)
    {
        report.problems.push_back(L"its entry is not one of a share-process service");
    }
    const ImagePath imagePath = ParseImagePath(report.entry->imagePath);
    if (!RunsGroup(imagePath, group))
    {
        report.problems.push_back(L"its entry does not run this group but " + report.entry->imagePath);
    }
    else if (::GetFileAttributesW(imagePath.program.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        report.problems.push_back(L"the program of its entry is missing: " + imagePath.program);
    }
}

/// A group that cannot be read has that problem in its own report.
void ReportOtherGroups(const CGroupStore& store, const std::wstring& group, ServiceReport& report)
{
    for (const std::wstring& other : store.Groups())
    {
        std::vector<std::wstring> ignored;
        Attempt(ignored, [&] {
            if (!IsSameName(other, group) && store.FindService(other, report.name))
            {
                report.problems.push_back(L"it is also in the group '" + other + L"'");
            }
        });
    }
}

GroupReport ReportGroup(const CServiceManager& manager, const std::wstring& group)
{
    const CGroupStore store;
    GroupReport report{group, {}, {}};
    Attempt(report.problems, [&] {
        for (std::wstring& name : store.Services(group))
        {
            ServiceReport service;
            service.name = std::move(name);
            Attempt(service.problems, [&] { ReportClass(store, group, service); });
            Attempt(service.problems, [&] { ReportEntry(manager, group, service); });
            Attempt(service.problems, [&] { ReportOtherGroups(store, group, service); });
            report.services.push_back(std::move(service));
        }
    });
    return report;
}

const wchar_t* DescribeStart(DWORD startType)
{
    switch (startType)
    {
    case SERVICE_AUTO_START:
        return L"auto";
    case SERVICE_DEMAND_START:
        return L"manual";
    case SERVICE_DISABLED:
        return L"disabled";
    default:
        return L"unknown";
    }
}

void AppendProblems(std::wstring& text, const wchar_t* indent, const std::vector<std::wstring>& problems)
{
    for (const std::wstring& problem : problems)
    {
        text += L"\n" + (indent + (L"problem  " + problem));
    }
}

void AppendService(std::wstring& text, const ServiceReport& service)
{
    text += L"\n  " + service.name;
    if (service.state)
    {
        text += L"\n    state    " + DescribeState(*service.state);
    }
    if (service.entry)
    {
        text += std::wstring(L"\n    start    ") + DescribeStart(service.entry->startType);
    }
    if (service.clsid)
    {
        text += L"\n    clsid    " + *service.clsid;
    }
    if (service.module)
    {
        text += L"\n    module   " + *service.module;
    }
    if (service.moduleVersion)
    {
        text += L"\n    version  " + *service.moduleVersion;
    }
    AppendProblems(text, L"    ", service.problems);
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
    json["moduleVersion"] = TextOrNull(service.moduleVersion);
    json["displayName"] = service.entry ? ordered_json(ToUtf8(service.entry->displayName)) : ordered_json();
    json["imagePath"] = service.entry ? ordered_json(ToUtf8(service.entry->imagePath)) : ordered_json();
    json["start"] =
        service.entry ? ordered_json(ToUtf8(DescribeStart(service.entry->startType))) : ordered_json();
    json["state"] = service.state ? ordered_json(ToUtf8(StateName(*service.state))) : ordered_json();
    json["processId"] = service.state ? ordered_json(service.state->processId) : ordered_json();
    json["problems"] = TextArray(service.problems);
    return json;
}

} // namespace

std::vector<GroupReport> ReportGroups(const std::optional<std::wstring>& group)
{
    const CGroupStore store;
    const CServiceManager manager(SC_MANAGER_CONNECT);
    std::vector<GroupReport> reports;
    for (const std::wstring& name : store.Groups())
    {
        if (!group || IsSameName(name, *group))
        {
            reports.push_back(ReportGroup(manager, name));
        }
    }
    if (group && reports.empty())
    {
        ThrowFailed(L"there is no group '" + *group + L"'");
    }
    return reports;
}

std::wstring FormatReport(const std::vector<GroupReport>& groups)
{
    if (groups.empty())
    {
        return L"There are no groups.";
    }
    std::wstring text;
    for (const GroupReport& group : groups)
    {
        text += (text.empty() ? L"Group " : L"\nGroup ") + group.name;
        if (group.services.empty() && group.problems.empty())
        {
            text += L"\n  no services";
        }
        AppendProblems(text, L"  ", group.problems);
        for (const ServiceReport& service : group.services)
        {
            AppendService(text, service);
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
    return {{"groups", std::move(array)}};
}

} // namespace TxCtl
