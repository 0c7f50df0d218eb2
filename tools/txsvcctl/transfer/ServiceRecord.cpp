#include "txsvcctl/transfer/ServiceRecord.h"

#include <algorithm>
#include <optional>

#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/service/EntryWords.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ServiceManager.h"
#include "txsvcctl/transfer/JsonObject.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

constexpr const char* kServiceNames[] = {
    "name",
    "clsid",
    "module",
    "host",
    "displayName",
    "description",
    "start",
    "delayedStart",
    "account",
    "dependencies",
    "sidType",
    "preshutdownMs",
    "recovery",
    "recoversFromErrors",
    "excludedFromFirstRun"};

constexpr const char* kRecoveryNames[] = {"resetSeconds", "rebootMessage", "command", "actions"};
constexpr const char* kActionNames[] = {"do", "delayMs"};

template <typename Value>
ordered_json OrNull(const std::optional<Value>& value)
{
    return value ? ordered_json(*value) : ordered_json();
}

ordered_json RecoveryAsJson(const Recovery& recovery)
{
    ordered_json actions = ordered_json::array();
    for (const SC_ACTION& action : recovery.actions)
    {
        actions.push_back(
            {{"do", ToUtf8(WordOf(kRecoveryActions, static_cast<DWORD>(action.Type)))},
             {"delayMs", action.Delay}});
    }
    return {
        {"resetSeconds", recovery.resetSeconds},
        {"rebootMessage", ToUtf8(recovery.rebootMessage)},
        {"command", ToUtf8(recovery.command)},
        {"actions", std::move(actions)}};
}

std::wstring Element(const std::wstring& place, std::size_t index)
{
    return place + L"[" + std::to_wstring(index) + L"]";
}

Recovery RecoveryFromJson(const ordered_json& json, const std::wstring& where)
{
    const CJsonObject object(json, where, kRecoveryNames);
    Recovery recovery{
        object.Number("resetSeconds"), object.Text("rebootMessage"), object.Text("command"), {}};
    for (const ordered_json& one : object.Array("actions"))
    {
        const CJsonObject action(
            one, Element(object.PlaceOf("actions"), recovery.actions.size()), kActionNames);
        recovery.actions.push_back(
            {static_cast<SC_ACTION_TYPE>(action.Word("do", kRecoveryActions)), action.Number("delayMs")});
    }
    return recovery;
}

std::vector<std::wstring> DependenciesFromJson(const CJsonObject& object)
{
    std::vector<std::wstring> names;
    for (const ordered_json& name : object.Array("dependencies"))
    {
        const std::wstring text = name.is_string() ? FromUtf8(name.get<std::string>()) : L"";
        if (text.empty() || text.find(L'\0') != std::wstring::npos)
        {
            object.Refuse("dependencies", FromUtf8(name.dump()) + L" is not the name of a service");
        }
        names.push_back(text);
    }
    return names;
}

EntryOptions OptionsFromJson(const CJsonObject& object)
{
    EntryOptions options;
    options.description = object.Text("description");
    options.account = object.Text("account");
    options.dependencies = DependenciesFromJson(object);
    if (!object.IsNull("delayedStart"))
    {
        options.isDelayed = object.Flag("delayedStart");
    }
    if (!object.IsNull("sidType"))
    {
        options.sidType = object.Word("sidType", kSidTypes);
    }
    if (!object.IsNull("preshutdownMs"))
    {
        options.preshutdownMs = object.Number("preshutdownMs");
    }
    if (!object.IsNull("recovery"))
    {
        options.recovery = RecoveryFromJson(object.Object("recovery"), object.PlaceOf("recovery"));
    }
    if (!object.IsNull("recoversFromErrors"))
    {
        options.recoversFromErrors = object.Flag("recoversFromErrors");
    }
    return options;
}

/// A new entry's.
EntryOptions DefaultOptions()
{
    EntryOptions options;
    options.description = L"";
    options.dependencies.emplace();
    options.account = L"LocalSystem";
    return options;
}

/// What the service manager has, if it is an entry of this group.
void ReadEntry(ServiceRecord& record)
{
    const std::wstring& name = record.service.service;
    record.displayName = name;
    record.options = DefaultOptions();
    const std::optional<ServiceConfig> entry = CServiceManager(SC_MANAGER_CONNECT).FindConfig(name);
    const ImagePath imagePath = ParseImagePath(entry ? entry->imagePath : L"");
    if (!entry)
    {
        record.flaw = L"it has no entry in the service manager";
    }
    else if (entry->type != SERVICE_WIN32_SHARE_PROCESS || !RunsGroup(imagePath, record.service.group))
    {
        record.flaw = L"its entry does not run this group but " + entry->imagePath;
    }
    else
    {
        record.host = imagePath.program;
        record.displayName = entry->displayName;
        record.startType = entry->startType;
        record.options = ReadEntryOptions(name);
    }
}

} // namespace

ServiceRecord ReadServiceRecord(const GroupService& service)
{
    const CGroupStore store;
    ServiceRecord record;
    record.service = service;
    ReadEntry(record);
    const std::optional<std::wstring> clsid = store.Clsid(service.group, service.service);
    record.clsid = CanonicalClsid(clsid.value_or(L"")).value_or(L"");
    if (record.clsid.empty())
    {
        record.flaw = clsid ? L"'" + *clsid + L"' is not a CLSID" : L"it has no CLSID";
        return record;
    }
    record.module = store.Module(record.clsid).value_or(L"");
    if (record.module.empty())
    {
        record.flaw = L"its class " + record.clsid + L" is not registered";
    }
    record.isExcluded =
        std::ranges::any_of(CHostStore().Excluded(service.group), [&service](const std::wstring& name) {
            return IsSameName(name, service.service);
        });
    return record;
}

ordered_json RecordAsJson(const ServiceRecord& record)
{
    const EntryOptions& options = record.options;
    ordered_json dependencies = ordered_json::array();
    for (const std::wstring& name : options.dependencies.value_or(std::vector<std::wstring>{}))
    {
        dependencies.push_back(ToUtf8(name));
    }
    return {
        {"name", ToUtf8(record.service.service)},
        {"clsid", ToUtf8(record.clsid)},
        {"module", ToUtf8(record.module)},
        {"host", ToUtf8(record.host)},
        {"displayName", ToUtf8(record.displayName)},
        {"description", ToUtf8(options.description.value_or(L""))},
        {"start", ToUtf8(WordOf(kStartTypes, record.startType))},
        {"delayedStart", OrNull(options.isDelayed)},
        {"account", ToUtf8(options.account.value_or(L""))},
        {"dependencies", std::move(dependencies)},
        {"sidType", options.sidType ? ordered_json(ToUtf8(WordOf(kSidTypes, *options.sidType))) : nullptr},
        {"preshutdownMs", OrNull(options.preshutdownMs)},
        {"recovery", options.recovery ? RecoveryAsJson(*options.recovery) : nullptr},
        {"recoversFromErrors", OrNull(options.recoversFromErrors)},
        {"excludedFromFirstRun", record.isExcluded}};
}

ServiceRecord RecordFromJson(const ordered_json& json, const std::wstring& group, const std::wstring& where)
{
    const CJsonObject object(json, where, kServiceNames);
    ServiceRecord record;
    record.service = {group, object.Text("name")};
    CheckServiceName(record.service.service);
    const std::optional<std::wstring> clsid = CanonicalClsid(object.Text("clsid"));
    if (!clsid)
    {
        object.Refuse("clsid", L"'" + object.Text("clsid") + L"' is not a CLSID");
    }
    record.clsid = *clsid;
    record.module = AbsolutePath(object.Text("module"));
    record.host = AbsolutePath(object.Text("host"));
    record.displayName = object.Text("displayName");
    record.startType = object.Word("start", kStartTypes);
    record.options = OptionsFromJson(object);
    record.isExcluded = object.Flag("excludedFromFirstRun");
    return record;
}

} // namespace TxCtl
