#include <windows.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/RegKey.h"
#include "base/Text.h"
#include "contract/CommandLine.h"
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

/// What is checked, with what is known of it.
struct Scope
{
    const GroupReport& group;
    std::vector<std::wstring> services;                       ///< Their names.
    std::map<std::wstring, std::vector<std::wstring>> others; ///< The lists of the other groups.
    CFindings& findings;
    CFileChecks files;
};

std::wstring Subject(const Scope& scope, const std::wstring& service)
{
    return ServiceSubject(scope.group.name, service);
}

void CheckModule(Scope& scope, const std::wstring& module, const std::wstring& subject)
{
    const ModuleCheck& check = scope.files.Module(module);
    if (check.fault != ModuleFault::None)
    {
        scope.findings.Add(
            check.fault == ModuleFault::Unreadable ? FindingId::ModuleUnreadable : FindingId::ModuleUnusable,
            subject,
            module + L" " + DescribeModuleFault(check));
    }
    else if (scope.files.CanUsersWriteOrReplace(module))
    {
        scope.findings.Add(FindingId::ModuleWritable, subject, module);
    }
}

void CheckClass(Scope& scope, const ServiceReport& service)
{
    const std::wstring subject = Subject(scope, service.name);
    if (!service.clsid)
    {
        scope.findings.Add(FindingId::NoClsid, subject, L"the group's key has no value of its name");
    }
    else if (!CanonicalClsid(*service.clsid))
    {
        scope.findings.Add(FindingId::BadClsid, subject, L"'" + *service.clsid + L"'");
    }
    else if (service.module)
    {
        CheckModule(scope, *service.module, subject);
    }
    else
    {
        scope.findings.Add(FindingId::ClassUnknown, subject, *service.clsid);
    }
    for (const auto& [group, services] : scope.others)
    {
        if (HoldsName(services, service.name))
        {
            scope.findings.Add(FindingId::InOtherGroup, subject, L"also in group '" + group + L"'");
        }
    }
}

/// What --fix does with an entry that runs the group, but not as it should.
std::function<void()> Rewrite(const std::wstring& service, const ImagePath& image, const std::wstring& group)
{
    return [service, quoted = FormatImagePath(image.program, group)] {
        CServiceManager(SC_MANAGER_CONNECT).Change(service, {quoted, {}, {}});
    };
}

void CheckProgram(Scope& scope, const ImagePath& image, const std::wstring& subject)
{
    if (::GetFileAttributesW(image.program.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        scope.findings.Add(FindingId::ProgramMissing, subject, image.program);
    }
    else if (scope.files.CanUsersWriteOrReplace(image.program))
    {
        scope.findings.Add(FindingId::ProgramWritable, subject, image.program);
    }
}

void CheckEntry(Scope& scope, const ServiceReport& service)
{
    const std::wstring subject = Subject(scope, service.name);
    const std::wstring& group = scope.group.name;
    const std::optional<ServiceConfig>& entry = service.entry;
    if (!entry)
    {
        scope.findings.Add(FindingId::NoEntry, subject, L"the service manager does not know it");
        return;
    }
    const ImagePath image = ParseImagePath(entry->imagePath);
    if (!RunsGroup(image, group))
    {
        scope.findings.Add(FindingId::OtherGroupsEntry, subject, entry->imagePath);
        return; // It may be another program's, and right for that.
    }
    CheckProgram(scope, image, subject);
    if (entry->type != SERVICE_WIN32_SHARE_PROCESS)
    {
        scope.findings.Add(
            FindingId::NotShared, subject, L"it is of another type", Rewrite(service.name, image, group));
    }
    if (!entry->imagePath.starts_with(L'"'))
    {
        scope.findings.Add(
            FindingId::PathUnquoted, subject, entry->imagePath, Rewrite(service.name, image, group));
    }
    if (entry->startType == SERVICE_DISABLED)
    {
        scope.findings.Add(FindingId::Disabled, subject, L"its start type says so");
    }
}

/// All services of the group, beside the first one.
void CheckCommon(const Scope& scope)
{
    const auto isRestricted = [](const ServiceConfig& entry) {
        return entry.sidType == DWORD{SERVICE_SID_TYPE_RESTRICTED};
    };
    const ServiceConfig* first = nullptr;
    for (const ServiceReport& service : scope.group.services)
    {
        if (!service.entry)
        {
            continue;
        }
        const ServiceConfig& entry = *service.entry;
        const std::wstring subject = Subject(scope, service.name);
        first = first == nullptr ? &entry : first;
        if (!IsSameName(first->account, entry.account))
        {
            scope.findings.Add(
                FindingId::AccountsDiffer, subject, entry.account + L", the first one has " + first->account);
        }
        if (isRestricted(*first) != isRestricted(entry))
        {
            scope.findings.Add(
                FindingId::SidTypesDiffer,
                subject,
                isRestricted(entry) ? L"restricted, the group's first one is not"
                                    : L"not restricted, as the group's first one is");
        }
    }
}

/// Values of the group's key that belong to no service of its list.
void CheckValues(const Scope& scope)
{
    const std::wstring path = GroupPath(scope.group.name);
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
    const bool isMistyped = status == ERROR_DATATYPE_MISMATCH || status == ERROR_INVALID_DATA;
    // A host that has learnt nothing stores 0.
    if (isMistyped || (limit != 0 && !CHostStore().Band(scope.group.name)))
    {
        scope.findings.Add(
            FindingId::SettingUnusable,
            Subject(scope, Contract::kBucketLimitValue),
            isMistyped ? L"no REG_DWORD of 4 bytes: the group learns anew"
                       : L"less than one bucket: the group learns anew",
            [group = scope.group.name] { CHostStore().ResetBand(group); });
    }
}

/// Which services wait for the first-run set-up as long as it is not finished.
void CheckFirstRun(const Scope& scope)
{
    const CHostStore store;
    const std::wstring& group = scope.group.name;
    const DWORD isAsked = store.Get(Contract::kOobeCheckValue).value;
    if (isAsked == 0)
    {
        return;
    }
    std::wstring waiting;
    for (const std::wstring& service : store.WaitForFirstRun(group, scope.services))
    {
        waiting += (waiting.empty() ? L"" : L", ") + service;
    }
    if (!waiting.empty())
    {
        scope.findings.Add(
            FindingId::WaitsForFirstRun,
            group,
            waiting + Basalt::FormatText(
                          L" (%s is %u, %s does not have them)",
                          Contract::kOobeCheckValue,
                          isAsked,
                          Contract::kOobeExclusionKey));
    }
    for (const std::wstring& name : store.Excluded(group))
    {
        if (!HoldsName(scope.services, name))
        {
            scope.findings.Add(
                FindingId::ExclusionUnknown, group, L"'" + name + L"'" + DidYouMean(name, scope.services));
        }
    }
}

/// A list that cannot be read is its own group's finding.
std::map<std::wstring, std::vector<std::wstring>> OtherLists(const std::wstring& group)
{
    const CGroupStore store;
    std::map<std::wstring, std::vector<std::wstring>> lists;
    for (const std::wstring& other : store.Groups())
    {
        CFindings ignored;
        ignored.Attempt(other, [&] {
            if (!IsSameName(other, group))
            {
                lists[other] = store.Services(other);
            }
        });
    }
    return lists;
}

void CheckServices(Scope& scope, const std::wstring& only)
{
    for (const ServiceReport& service : scope.group.services)
    {
        if (!only.empty() && !IsSameName(only, service.name))
        {
            continue;
        }
        if (service.failures.empty())
        {
            CheckClass(scope, service);
            CheckEntry(scope, service);
        }
        for (const std::wstring& failure : service.failures)
        {
            scope.findings.Add(FindingId::Unreadable, Subject(scope, service.name), failure);
        }
    }
}

/// Of a host, by its program's name; nothing for any other program.
std::optional<std::wstring> GroupOf(const ServiceConfig& entry)
{
    const ImagePath image = ParseImagePath(entry.imagePath);
    const bool isHost =
        IsSameName(image.program.substr(FolderOf(image.program).size()), Contract::kHostProgram) &&
        image.argument.starts_with(Contract::kGroupDelimiter);
    return isHost ? std::optional(image.argument.substr(std::size(Contract::kGroupDelimiter) - 1))
                  : std::nullopt;
}

} // namespace

void CheckGroup(const GroupReport& group, const std::wstring& service, CFindings& findings)
{
    for (const std::wstring& failure : group.failures)
    {
        findings.Add(FindingId::Unreadable, group.name, failure);
    }
    if (!group.failures.empty())
    {
        return;
    }
    Scope scope{group, {}, {}, findings, {}};
    for (const ServiceReport& one : group.services)
    {
        scope.services.push_back(one.name);
    }
    if (group.services.empty())
    {
        findings.Add(FindingId::NoServices, group.name, L"its list is empty or missing");
    }
    findings.Attempt(group.name, [&] { scope.others = OtherLists(group.name); });
    CheckServices(scope, service);
    if (service.empty())
    {
        CheckCommon(scope);
        findings.Attempt(group.name, [&scope] { CheckValues(scope); });
        findings.Attempt(group.name, [&scope] { CheckFirstRun(scope); });
    }
}

void CheckStrayEntries(const std::vector<GroupReport>& groups, const std::wstring& only, CFindings& findings)
{
    findings.Attempt({}, [&] {
        const CServiceManager manager(SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE);
        for (const auto& [name, state] : manager.States())
        {
            const bool isListed = std::ranges::any_of(
                groups, [&name](const GroupReport& group) { return group.Find(name) != nullptr; });
            const std::optional<ServiceConfig> entry = isListed ? std::nullopt : manager.FindConfig(name);
            const std::optional<std::wstring> runs = entry ? GroupOf(*entry) : std::nullopt;
            if (runs && (only.empty() || IsSameName(only, *runs)))
            {
                findings.Add(FindingId::StrayEntry, ServiceSubject(*runs, name), entry->imagePath);
            }
        }
    });
}

} // namespace TxCtl
