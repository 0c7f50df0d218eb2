#include "txsvcctl/transfer/Document.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

#include "base/Owned.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/transfer/JsonObject.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

constexpr int kVersion = 1;
constexpr char kKind[] = "txsvcctl export";

constexpr const char* kDocumentNames[] = {"version", "kind", "groups", "hostSettings", "logSettings"};
constexpr const char* kGroupNames[] = {"name", "services"};

std::string ReadBytes(const std::wstring& path)
{
    constexpr LONGLONG kLargest = 16LL * 1024 * 1024; // Thousands of services; keeps out what is no document.
    const Basalt::CFile file(::CreateFileW(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.Get(), &size))
    {
        ThrowFailure(L"read file", path, ::GetLastError());
    }
    if (size.QuadPart > kLargest)
    {
        ThrowFailure(L"read file", path, ERROR_FILE_TOO_LARGE);
    }
    std::string bytes(static_cast<std::size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr))
    {
        ThrowFailure(L"read file", path, ::GetLastError());
    }
    bytes.resize(read);
    return bytes;
}

/// Redirection in older PowerShells makes UTF-16 of everything.
std::string AsUtf8(std::string bytes)
{
    constexpr char kUtf16Mark[] = "\xFF\xFE";
    constexpr char kUtf8Mark[] = "\xEF\xBB\xBF";
    if (bytes.starts_with(kUtf16Mark))
    {
        std::wstring text(bytes.size() / sizeof(wchar_t) - 1, L'\0');
        std::memcpy(text.data(), bytes.data() + sizeof(wchar_t), text.size() * sizeof(wchar_t));
        return ToUtf8(text);
    }
    return bytes.starts_with(kUtf8Mark) ? bytes.substr(std::strlen(kUtf8Mark)) : bytes;
}

ordered_json ParseJson(const std::string& text)
try
{
    return ordered_json::parse(text);
}
catch (const ordered_json::parse_error& error)
{
    const std::string what = error.what(); // "[name and number] what and where"
    ThrowUsage(L"it is not JSON: " + FromUtf8(what.substr(what.find("] ") + 2)));
}

void CheckKind(const ordered_json& json)
{
    if (!json.is_object() || json.value("kind", ordered_json()) != kKind)
    {
        ThrowUsage(L"it is not what 'txsvcctl export' writes");
    }
    const ordered_json version = json.value("version", ordered_json());
    if (version != kVersion)
    {
        ThrowUsage(
            L"its version is " + FromUtf8(version.dump()) + L", this txsvcctl reads version " +
            std::to_wstring(kVersion));
    }
}

void ReadGroup(const ordered_json& json, const std::wstring& where, Document& document)
{
    const CJsonObject object(json, where, kGroupNames);
    const std::wstring group = object.Text("name");
    CheckGroupName(group);
    std::size_t index = 0;
    for (const ordered_json& service : object.Array("services"))
    {
        const std::wstring place = object.PlaceOf("services") + L"[" + std::to_wstring(index++) + L"]";
        document.services.push_back(RecordFromJson(service, group, place));
    }
}

/// A service is in one group, and a class has one module.
void CheckServicesFit(const std::vector<ServiceRecord>& services)
{
    for (auto one = services.begin(); one != services.end(); ++one)
    {
        for (auto other = services.begin(); other != one; ++other)
        {
            if (IsSameName(one->service.service, other->service.service))
            {
                ThrowUsage(L"the service '" + one->service.service + L"' is there twice");
            }
            if (one->clsid == other->clsid && !IsSameName(one->module, other->module))
            {
                ThrowUsage(
                    L"the class " + one->clsid + L" has two modules: " + other->module + L" and " +
                    one->module);
            }
        }
    }
}

Document DocumentFromJson(const ordered_json& json)
{
    CheckKind(json);
    const CJsonObject object(json, {}, kDocumentNames);
    Document document;
    std::size_t index = 0;
    for (const ordered_json& group : object.Array("groups"))
    {
        ReadGroup(group, object.PlaceOf("groups") + L"[" + std::to_wstring(index++) + L"]", document);
    }
    CheckServicesFit(document.services);
    for (const auto& [name, value] : object.Object("hostSettings").items())
    {
        const std::wstring number = value.is_number() ? FromUtf8(value.dump()) : L"";
        static_cast<void>(CHostStore().Check(FromUtf8(name), number));
        document.hostSettings.emplace_back(FromUtf8(name), number);
    }
    if (!object.IsNull("logSettings"))
    {
        document.logSettings.emplace();
        for (const auto& [name, value] : object.Object("logSettings").items())
        {
            const std::wstring text = value.is_string() ? FromUtf8(value.get<std::string>()) : L"";
            CLogStore().Check(FromUtf8(name), text);
            document.logSettings->emplace_back(FromUtf8(name), text);
        }
    }
    return document;
}

std::vector<std::wstring> GroupsNamed(const std::optional<std::wstring>& name)
{
    std::vector<std::wstring> groups = CGroupStore().Groups();
    if (name)
    {
        std::erase_if(groups, [&name](const std::wstring& group) { return !IsSameName(group, *name); });
        if (groups.empty())
        {
            ThrowFailed(L"there is no group '" + *name + L"'");
        }
    }
    return groups;
}

} // namespace

Document ReadMachine(const std::optional<std::wstring>& group, bool& isWhole, IConsole& console)
{
    const auto leaveOut = [&isWhole, &console](const std::wstring& what, const std::wstring& why) {
        console.Error(L"txsvcctl: " + what + L" is left out: " + why);
        isWhole = false;
    };
    isWhole = true;
    Document document;
    for (const std::wstring& name : GroupsNamed(group))
    {
        for (const std::wstring& service : CGroupStore().Services(name))
        {
            ServiceRecord record = ReadServiceRecord({name, service});
            record.flaw.empty() ? document.services.push_back(std::move(record))
                                : leaveOut(name + L"/" + service, record.flaw);
        }
    }
    for (const Contract::HostSetting& setting : CHostStore::Settings())
    {
        const HostSettingReport report = CHostStore().Get(setting.name);
        if (!report.problem.empty())
        {
            leaveOut(setting.name, report.problem);
        }
        else if (!report.isDefault)
        {
            document.hostSettings.emplace_back(setting.name, std::to_wstring(report.value));
        }
    }
    if (!group)
    {
        document.logSettings.emplace();
        for (const std::wstring& name : CLogStore::Names())
        {
            if (const std::optional<std::wstring> value = CLogStore::Stored(name))
            {
                document.logSettings->emplace_back(name, *value);
            }
        }
    }
    return document;
}

ordered_json DocumentAsJson(const Document& document)
{
    ordered_json groups = ordered_json::array();
    for (const ServiceRecord& record : document.services)
    {
        const std::string group = ToUtf8(record.service.group);
        if (groups.empty() || groups.back().at("name") != group)
        {
            groups.push_back({{"name", group}, {"services", ordered_json::array()}});
        }
        groups.back().at("services").push_back(RecordAsJson(record));
    }
    ordered_json hostSettings = ordered_json::object();
    for (const auto& [name, value] : document.hostSettings)
    {
        hostSettings[ToUtf8(name)] = std::stoul(value);
    }
    ordered_json logSettings = document.logSettings ? ordered_json::object() : ordered_json();
    for (const auto& [name, value] : document.logSettings.value_or(Document::Settings()))
    {
        logSettings[ToUtf8(name)] = ToUtf8(value);
    }
    return {
        {"version", kVersion},
        {"kind", kKind},
        {"groups", std::move(groups)},
        {"hostSettings", std::move(hostSettings)},
        {"logSettings", std::move(logSettings)}};
}

Document ReadDocument(const std::wstring& path)
try
{
    return DocumentFromJson(ParseJson(AsUtf8(ReadBytes(path))));
}
catch (const CToolError& error)
{
    if (error.Code() == ExitCode::Usage)
    {
        ThrowUsage(L"cannot import '" + path + L"': " + error.Text());
    }
    throw;
}

} // namespace TxCtl
