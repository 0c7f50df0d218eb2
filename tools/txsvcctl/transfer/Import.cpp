#include "txsvcctl/transfer/Import.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "base/Text.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/service/ServiceInstaller.h"
#include "txsvcctl/service/Transaction.h"
#include "txsvcctl/transfer/Document.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

/// One thing that is not as the document has it.
struct Change
{
    std::wstring subject; ///< "CORE/alpha", "host", "log"
    std::string name;
    ordered_json from; ///< Null when there is nothing yet.
    ordered_json to;
};

using Changes = std::vector<Change>;

struct ServiceImport
{
    ServiceRecord wanted;
    Changes changes; ///< At least one.
    InstallPlan plan;

    [[nodiscard]] bool Has(const char* name) const
    {
        return std::ranges::find(changes, name, &Change::name) != changes.end();
    }
};

struct ImportPlan
{
    std::vector<ServiceImport> services;
    Changes hostChanges;
    Changes logChanges;
};

std::wstring SubjectOf(const ServiceRecord& record)
{
    return record.service.group + L"/" + record.service.service;
}

/// What either side does not know is no difference, but a new entry can be given everything.
Changes Compare(const ServiceRecord& current, const ServiceRecord& wanted)
{
    const bool isNew = current.host.empty();
    const ordered_json before = RecordAsJson(current);
    const ordered_json after = RecordAsJson(wanted);
    Changes changes;
    if (isNew)
    {
        changes.push_back({SubjectOf(wanted), "service", nullptr, "new"});
    }
    for (const auto& [name, value] : after.items())
    {
        const ordered_json& old = before.at(name);
        const bool isUnknown = value.is_null() || (old.is_null() && !isNew);
        if (name != "name" && !isUnknown && value != old)
        {
            changes.push_back({SubjectOf(wanted), name, isNew ? ordered_json() : old, value});
        }
    }
    return changes;
}

InstallRequest RequestFor(const ServiceImport& import, const ImportRequest& request)
{
    const ServiceRecord& wanted = import.wanted;
    const auto take = [&import](const char* name, auto& to, const auto& from) {
        if (import.Has(name))
        {
            to = from;
        }
    };
    InstallRequest install;
    install.service = wanted.service;
    install.clsid = wanted.clsid;
    install.module = wanted.module;
    install.host = wanted.host;
    install.replaceModule = request.replaceModule;
    take("displayName", install.displayName, wanted.displayName);
    take("start", install.startType, wanted.startType);
    take("description", install.options.description, wanted.options.description);
    take("delayedStart", install.options.isDelayed, wanted.options.isDelayed);
    take("account", install.options.account, wanted.options.account);
    take("dependencies", install.options.dependencies, wanted.options.dependencies);
    take("sidType", install.options.sidType, wanted.options.sidType);
    take("preshutdownMs", install.options.preshutdownMs, wanted.options.preshutdownMs);
    take("recovery", install.options.recovery, wanted.options.recovery);
    take("recoversFromErrors", install.options.recoversFromErrors, wanted.options.recoversFromErrors);
    install.options.isRecoveryAsked = import.Has("recovery") || import.Has("recoversFromErrors");
    return install;
}

ImportPlan Plan(const Document& document, const ImportRequest& request)
{
    ImportPlan plan;
    for (const ServiceRecord& wanted : document.services)
    {
        ServiceImport import{wanted, Compare(ReadServiceRecord(wanted.service), wanted), {}};
        if (!import.changes.empty())
        {
            import.plan = PlanInstallation(RequestFor(import, request));
            plan.services.push_back(std::move(import));
        }
    }
    for (const auto& [name, value] : document.hostSettings)
    {
        const HostSettingReport report = CHostStore().Get(name);
        const DWORD wanted = CHostStore().Check(name, value);
        if (report.isDefault || report.value != wanted)
        {
            const ordered_json old = report.isDefault ? ordered_json() : ordered_json(report.value);
            plan.hostChanges.push_back({L"host", ToUtf8(report.setting.name), old, wanted});
        }
    }
    for (const auto& [name, value] : document.logSettings.value_or(Document::Settings()))
    {
        const std::optional<std::wstring> old = CLogStore::Stored(name);
        if (old != value)
        {
            plan.logChanges.push_back(
                {L"log", ToUtf8(name), old ? ordered_json(ToUtf8(*old)) : ordered_json(), ToUtf8(value)});
        }
    }
    return plan;
}

Changes AllChanges(const ImportPlan& plan)
{
    Changes all;
    for (const ServiceImport& service : plan.services)
    {
        all.insert(all.end(), service.changes.begin(), service.changes.end());
    }
    all.insert(all.end(), plan.hostChanges.begin(), plan.hostChanges.end());
    all.insert(all.end(), plan.logChanges.begin(), plan.logChanges.end());
    return all;
}

std::wstring LineOf(const Change& change)
{
    const std::wstring subject = change.subject + L": " + FromUtf8(change.name) + L": ";
    const std::wstring from = change.from.is_null() ? L"" : FromUtf8(change.from.dump()) + L" -> ";
    return subject + from + FromUtf8(change.to.dump());
}

void Show(const Changes& changes, const ImportRequest& request, IConsole& console)
{
    if (request.isJson)
    {
        ordered_json array = ordered_json::array();
        for (const Change& change : changes)
        {
            array.push_back(
                {{"subject", ToUtf8(change.subject)},
                 {"name", change.name},
                 {"from", change.from},
                 {"to", change.to}});
        }
        const ordered_json json = {
            {"version", 1}, {"isDryRun", request.isDryRun}, {"changes", std::move(array)}};
        console.Out(FromUtf8(json.dump(2)));
        return;
    }
    for (const Change& change : changes)
    {
        request.isDryRun ? console.Out(LineOf(change)) : console.Done(LineOf(change));
    }
}

/// The account whose password an import has to know; empty for none.
std::wstring AccountToAskFor(const ServiceImport& import)
{
    const std::wstring account = import.plan.request.options.account.value_or(L"LocalSystem");
    return NeedsNoPassword(account) ? L"" : account;
}

/// One password for each account, in the order of the document.
using Passwords = std::map<std::wstring, std::optional<std::wstring>>;

Passwords AskForPasswords(const ImportPlan& plan, IConsole& console)
{
    Passwords passwords;
    for (const ServiceImport& import : plan.services)
    {
        const std::wstring account = AccountToAskFor(import);
        if (!account.empty() && !passwords.contains(account))
        {
            passwords[account] = ReadPassword(account, console);
        }
    }
    return passwords;
}

/// @return true when services were left out whose account has no password.
bool LeaveOutUnknownAccounts(ImportPlan& plan, const Passwords& passwords, IConsole& console)
{
    const auto isUnknown = [&](const ServiceImport& import) {
        const std::wstring account = AccountToAskFor(import);
        const auto password = passwords.find(account);
        const bool isKnown = account.empty() || (password != passwords.end() && password->second);
        if (!isKnown)
        {
            console.Error(
                L"txsvcctl: " + SubjectOf(import.wanted) + L" is left as it is: the account '" + account +
                L"' needs a password on standard input");
        }
        return !isKnown;
    };
    return std::erase_if(plan.services, isUnknown) != 0;
}

void CarryOutImport(const ImportPlan& plan, Passwords& passwords, CRegistryChange& change, IConsole& console)
{
    const CHostStore host;
    for (const Change& one : plan.hostChanges)
    {
        host.Set(change, FromUtf8(one.name), FromUtf8(one.to.dump()));
    }
    const CLogStore log;
    for (const Change& one : plan.logChanges)
    {
        const std::wstring name = FromUtf8(one.name);
        change.Remember(CLogStore::KeyPath(), CLogStore::ValueName(name));
        log.Set(name, FromUtf8(one.to.get<std::string>()));
    }
    for (const ServiceImport& import : plan.services)
    {
        const GroupService& service = import.wanted.service;
        CarryOut(import.plan, passwords[AccountToAskFor(import)].value_or(L""), change, console);
        if (import.Has("excludedFromFirstRun"))
        {
            import.wanted.isExcluded ? host.Exclude(change, service.group, service.service)
                                     : host.Include(change, service.group, service.service);
        }
    }
}

void AfterImport(const ImportPlan& plan, IConsole& console)
{
    for (const ServiceImport& import : plan.services)
    {
        SayWhenSettingsApply(SubjectOf(import.wanted), import.wanted.service.service, console);
    }
    const bool hasFileLog = std::ranges::any_of(plan.logChanges, [](const Change& change) {
        return change.name == "mechanism" && change.to == "file";
    });
    if (hasFileLog)
    {
        CLogStore().TakeDefaultFolder();
    }
}

} // namespace

void Import(const ImportRequest& request, IConsole& console)
{
    const Document document = ReadDocument(AbsolutePath(request.file));
    ImportPlan plan = Plan(document, request);
    if (request.isDryRun)
    {
        WarnAboutViewLink(console);
        Show(AllChanges(plan), request, console);
        return;
    }
    // Planned twice: nobody types a password in vain, and none keeps the others out while he types.
    Passwords passwords = AskForPasswords(plan, console);
    const CExclusive exclusive;
    plan = Plan(document, request);
    const bool isPart = LeaveOutUnknownAccounts(plan, passwords, console);
    const Changes changes = AllChanges(plan);
    if (!changes.empty())
    {
        EnsureViewLink(request.replaceKey, console);
        AllOrNothing([&](CRegistryChange& change) { CarryOutImport(plan, passwords, change, console); });
    }
    Show(changes, request, console);
    AfterImport(plan, console);
    if (isPart)
    {
        throw CToolError(ExitCode::Findings, {});
    }
    if (changes.empty() && !request.isJson)
    {
        console.Done(L"Everything is as the document has it.");
    }
}

} // namespace TxCtl
