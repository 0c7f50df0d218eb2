#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "base/RegKey.h"
#include "contract/Keys.h"
#include "txsvcctl/check/CheckTools.h"
#include "txsvcctl/check/Findings.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ModuleFile.h"
#include "txsvcctl/service/RegistryNames.h"
#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

namespace
{

std::wstring FolderOf(const std::wstring& path)
{
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

/// What is checked, with what is known of it.
struct Scope
{
    const std::wstring& group;
    std::vector<std::wstring> services;
    CFindings& findings;
};

std::wstring Subject(const Scope& scope, const std::wstring& service)
{
    return scope.group + L"/" + service;
}

void CheckModule(const std::wstring& module, const std::wstring& subject, CFindings& findings)
{
    const ModuleCheck check = CheckModuleFile(module);
    if (check.fault != ModuleFault::None)
    {
        findings.Add(
            check.fault == ModuleFault::Unreadable ? FindingId::ModuleUnreadable : FindingId::ModuleUnusable,
            subject,
            module + L" " + DescribeModuleFault(check));
    }
    else if (CanUsersWrite(module) || CanUsersWrite(FolderOf(module)))
    {
        findings.Add(FindingId::ModuleWritable, subject, module);
    }
}

void CheckClass(const Scope& scope, const std::wstring& service)
{
    const CGroupStore store;
    const std::wstring subject = Subject(scope, service);
    const std::optional<std::wstring> clsid = store.Clsid(scope.group, service);
    if (!clsid)
    {
        scope.findings.Add(FindingId::NoClsid, subject, L"the group's key has no value of its name");
    }
    else if (!CanonicalClsid(*clsid))
    {
        scope.findings.Add(FindingId::BadClsid, subject, L"'" + *clsid + L"'");
    }
    else if (const std::optional<std::wstring> module = store.Module(*clsid))
    {
        CheckModule(*module, subject, scope.findings);
    }
    else
    {
        scope.findings.Add(FindingId::ClassUnknown, subject, *clsid);
    }
    for (const std::wstring& other : store.OtherGroupsOf({scope.group, service}))
    {
        scope.findings.Add(FindingId::InOtherGroup, subject, L"also in group '" + other + L"'");
    }
}

/// What --fix does with an entry that runs the right program for the right group, but not as it should.
std::function<void()> Rewrite(const std::wstring& service, const ImagePath& image, const std::wstring& group)
{
    if (!RunsGroup(image, group))
    {
        return {}; // It may be meant for something else.
    }
    return [service, quoted = FormatImagePath(image.program, group)] {
        CServiceManager(SC_MANAGER_CONNECT).Change(service, {quoted, {}, {}});
    };
}

void CheckProgram(const ImagePath& image, const std::wstring& subject, CFindings& findings)
{
    if (::GetFileAttributesW(image.program.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        findings.Add(FindingId::ProgramMissing, subject, image.program);
    }
    else if (CanUsersWrite(image.program) || CanUsersWrite(FolderOf(image.program)))
    {
        findings.Add(FindingId::ProgramWritable, subject, image.program);
    }
}

void CheckEntry(const Scope& scope, const std::wstring& service, const CServiceManager& manager)
{
    const std::wstring subject = Subject(scope, service);
    const std::optional<ServiceConfig> entry = manager.FindConfig(service);
    if (!entry)
    {
        scope.findings.Add(FindingId::NoEntry, subject, L"the service manager does not know it");
        return;
    }
    const ImagePath image = ParseImagePath(entry->imagePath);
    if (!RunsGroup(image, scope.group))
    {
        scope.findings.Add(FindingId::OtherGroupsEntry, subject, entry->imagePath);
    }
    CheckProgram(image, subject, scope.findings);
    if (entry->type != SERVICE_WIN32_SHARE_PROCESS)
    {
        scope.findings.Add(
            FindingId::NotShared, subject, L"it is of another type", Rewrite(service, image, scope.group));
    }
    if (!entry->imagePath.starts_with(L'"'))
    {
        scope.findings.Add(
            FindingId::PathUnquoted, subject, entry->imagePath, Rewrite(service, image, scope.group));
    }
    if (entry->startType == SERVICE_DISABLED)
    {
        scope.findings.Add(FindingId::Disabled, subject, L"its start type says so");
    }
}

/// All services of the group, beside the first one.
void CheckCommon(const Scope& scope, const CServiceManager& manager)
{
    std::optional<ServiceConfig> first;
    for (const std::wstring& service : scope.services)
    {
        std::optional<ServiceConfig> entry = manager.FindConfig(service);
        if (first && entry && !IsSameName(first->account, entry->account))
        {
            scope.findings.Add(
                FindingId::AccountsDiffer,
                Subject(scope, service),
                entry->account + L", the first one has " + first->account);
        }
        if (first && entry && first->sidType != entry->sidType)
        {
            scope.findings.Add(
                FindingId::SidTypesDiffer, Subject(scope, service), L"not as the group's first service");
        }
        if (!first)
        {
            first = std::move(entry);
        }
    }
}

/// Values of the group's key that belong to no service of its list.
void CheckValues(const Scope& scope)
{
    const std::wstring path = GroupPath(scope.group);
    Basalt::CRegKey key;
    CheckStatus(key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ), L"open registry key", path);
    for (const std::wstring& name : ValueNames(key, path))
    {
        if (!name.empty() && !IsSameName(name, Contract::kBucketLimitValue) &&
            !HoldsName(scope.services, name))
        {
            scope.findings.Add(
                FindingId::NotInList,
                Subject(scope, name),
                L"not in the list" + DidYouMean(name, scope.services));
        }
    }
    DWORD limit = 0;
    const DWORD status = key.ReadDword(Contract::kBucketLimitValue, limit);
    if (status == ERROR_DATATYPE_MISMATCH || status == ERROR_INVALID_DATA)
    {
        scope.findings.Add(
            FindingId::SettingUnusable,
            Subject(scope, Contract::kBucketLimitValue),
            L"no REG_DWORD of 4 bytes: the group learns anew",
            [group = scope.group] { CHostStore().ResetBand(group); });
    }
}

/// Which services wait for the first-run set-up as long as it is not finished.
void CheckFirstRun(const Scope& scope)
{
    const CHostStore store;
    if (store.Get(Contract::kOobeCheckValue).value == 0)
    {
        return;
    }
    std::wstring waiting;
    for (const std::wstring& service : store.WaitForFirstRun(scope.group, scope.services))
    {
        waiting += (waiting.empty() ? L"" : L", ") + service;
    }
    if (!waiting.empty())
    {
        scope.findings.Add(FindingId::WaitsForFirstRun, scope.group, waiting);
    }
    for (const std::wstring& name : store.Excluded(scope.group))
    {
        if (!HoldsName(scope.services, name))
        {
            scope.findings.Add(
                FindingId::ExclusionUnknown,
                scope.group,
                L"'" + name + L"'" + DidYouMean(name, scope.services));
        }
    }
}

} // namespace

void CheckGroup(const std::wstring& group, const std::wstring& service, CFindings& findings)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    const Scope scope{group, CGroupStore().Services(group), findings};
    if (scope.services.empty())
    {
        findings.Add(FindingId::NoServices, group, L"its list is empty or missing");
    }
    for (const std::wstring& name : scope.services)
    {
        if (service.empty() || IsSameName(service, name))
        {
            CheckClass(scope, name);
            CheckEntry(scope, name, manager);
        }
    }
    if (service.empty())
    {
        CheckCommon(scope, manager);
        CheckValues(scope);
        CheckFirstRun(scope);
    }
}

} // namespace TxCtl
