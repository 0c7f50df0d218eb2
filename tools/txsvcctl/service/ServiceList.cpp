#include "txsvcctl/service/ServiceList.h"

#include <windows.h>

#include <algorithm>

#include "base/Text.h"
#include "base/VersionInfo.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/GroupStore.h"

namespace TxCtl
{

namespace
{

/// Calls a step of the report; its failure is one of what it reports on, not of the whole.
template <typename Step>
void Attempt(std::vector<std::wstring>& failures, Step step)
{
    try
    {
        step();
    }
    catch (const CToolError& error)
    {
        failures.push_back(error.Text());
    }
}

GroupReport ReportGroup(const CServiceManager& manager, const std::wstring& group)
{
    const CGroupStore store;
    GroupReport report{group, {}, {}, {}};
    std::vector<std::wstring> names;
    Attempt(report.failures, [&] { names = store.Services(group); });
    for (std::wstring& name : names)
    {
        ServiceReport& service = report.services.emplace_back();
        service.name = std::move(name);
        Attempt(service.failures, [&] {
            service.clsid = store.Clsid(group, service.name);
            if (service.clsid && CanonicalClsid(*service.clsid))
            {
                service.module = store.Module(*service.clsid);
            }
        });
        Attempt(service.failures, [&] { service.entry = manager.FindConfig(service.name, &service.state); });
    }
    return report;
}

} // namespace

const ServiceReport* GroupReport::Find(const std::wstring& service) const
{
    const auto found = std::ranges::find_if(
        services, [&service](const ServiceReport& one) { return IsSameName(one.name, service); });
    return found == services.end() ? nullptr : &*found;
}

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

std::optional<std::wstring> ModuleVersion(const ServiceReport& service)
{
    Basalt::Version version;
    if (!service.module || Basalt::GetFileVersion(*service.module, version) != ERROR_SUCCESS)
    {
        return std::nullopt;
    }
    return Basalt::FormatText(L"%u.%u.%u.%u", version.major, version.minor, version.build, version.revision);
}

} // namespace TxCtl
