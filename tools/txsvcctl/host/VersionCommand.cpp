#include "txsvcctl/host/VersionCommand.h"

#include <windows.h>
#include <objbase.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "TxSvcGroupControl.h"
#include "base/Paths.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "base/VersionInfo.h"
#include "contract/CommandLine.h"
#include "contract/LogNames.h"
#include "logging/controller/LogControllerHelper.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/Table.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/RunningImage.h"
#include "txsvcctl/service/ServiceManager.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Part
{
    std::string name;
    std::wstring path; ///< Empty when it is not registered.
};

struct RunningHost
{
    std::vector<GroupService> services;
    std::optional<RunningImage> image;
};

bool IsFile(const std::wstring& path)
{
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring Text(const Basalt::Version& version)
{
    return Basalt::FormatText(
        L"%hu.%hu.%hu.%hu", version.major, version.minor, version.build, version.revision);
}

std::optional<std::wstring> VersionOfFile(const std::wstring& path)
{
    Basalt::Version version;
    return Basalt::GetFileVersion(path, version) == ERROR_SUCCESS ? std::optional(Text(version))
                                                                  : std::nullopt;
}

void AddOnce(std::vector<Part>& parts, const char* name, const std::wstring& path)
{
    const bool isThere =
        std::ranges::any_of(parts, [&path](const Part& part) { return IsSameName(part.path, path); });
    if (!isThere)
    {
        parts.push_back({name, path});
    }
}

/// The module that COM loads for group control between processes; empty when none is registered.
std::wstring ProxyPath()
{
    wchar_t interfaceId[39] = {};
    ::StringFromGUID2(
        IID_ITxSvcSubsystemControlManager, interfaceId, static_cast<int>(std::size(interfaceId)));
    const std::wstring path = std::wstring(L"Interface\\") + interfaceId + L"\\ProxyStubClsid32";
    Basalt::CRegKey key;
    std::wstring clsid;
    return key.Open(HKEY_CLASSES_ROOT, path.c_str(), KEY_READ) == ERROR_SUCCESS &&
                   key.ReadString(L"", clsid) == ERROR_SUCCESS
               ? CGroupStore().Module(clsid).value_or(L"")
               : L"";
}

/// Where a host looks for its log controller.
std::vector<std::wstring> ControllerPaths()
{
    ETWLogging::LogControllerHelper helper(
        std::make_unique<Basalt::ShlObjAPI>(),
        std::make_unique<Basalt::CRegKey>(),
        std::make_unique<ETWLogging::LogProperties>());
    std::wstring beside;
    std::wstring installed;
    static_cast<void>(helper.FindBesideModule(beside));
    static_cast<void>(helper.FindInstalledPath(installed));
    const std::wstring name = std::wstring(L"controller:") + ETWLogging::kHostApplication;
    return {beside, CLogStore::Stored(name).value_or(L""), installed};
}

/// The tool, each host that is there or that an entry names, and what hosts load beside the services'
/// modules.
std::vector<Part> FindParts()
{
    std::vector<Part> parts = {{"txsvcctl", Basalt::ProgramPath()}};
    const std::wstring host = Basalt::ProgramFolder() + Contract::kHostProgram;
    if (IsFile(host))
    {
        AddOnce(parts, "host", host);
    }
    const CServiceManager manager(SC_MANAGER_CONNECT);
    const CGroupStore store;
    for (const std::wstring& group : store.Groups())
    {
        for (const std::wstring& service : store.Services(group))
        {
            const std::optional<ServiceConfig> entry = manager.FindConfig(service);
            const ImagePath imagePath = ParseImagePath(entry ? entry->imagePath : L"");
            if (RunsGroup(imagePath, group))
            {
                AddOnce(parts, "host", imagePath.program);
            }
        }
    }
    parts.push_back({"proxy", ProxyPath()});
    for (const std::wstring& path : ControllerPaths())
    {
        if (IsFile(path))
        {
            AddOnce(parts, "log controller", path);
        }
    }
    return parts;
}

std::map<DWORD, RunningHost> FindHosts()
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    const CGroupStore store;
    std::map<DWORD, RunningHost> hosts;
    for (const std::wstring& group : store.Groups())
    {
        for (const std::wstring& service : store.Services(group))
        {
            const std::optional<ServiceState> state = manager.FindState(service);
            if (state && state->processId != 0)
            {
                hosts[state->processId].services.push_back({group, service});
            }
        }
    }
    for (auto& [id, host] : hosts)
    {
        host.image = ImageOf(id);
    }
    return hosts;
}

bool IsOld(const RunningHost& host)
{
    return host.image && host.image->isCurrent == false;
}

ordered_json TextOrNull(const std::optional<std::wstring>& text)
{
    return text && !text->empty() ? ordered_json(ToUtf8(*text)) : ordered_json();
}

std::optional<std::wstring> RunningVersion(const RunningHost& host)
{
    return host.image && host.image->version ? std::optional(Text(*host.image->version)) : std::nullopt;
}

ordered_json HostAsJson(DWORD id, const RunningHost& host)
{
    ordered_json services = ordered_json::array();
    for (const GroupService& service : host.services)
    {
        services.push_back({{"group", ToUtf8(service.group)}, {"service", ToUtf8(service.service)}});
    }
    const std::optional<bool> isCurrent = host.image ? host.image->isCurrent : std::nullopt;
    return {
        {"processId", id},
        {"path", TextOrNull(host.image ? std::optional(host.image->path) : std::nullopt)},
        {"fileVersion", TextOrNull(RunningVersion(host))},
        {"isCurrent", isCurrent ? ordered_json(*isCurrent) : ordered_json()},
        {"services", std::move(services)}};
}

ordered_json AsJson(const std::vector<Part>& parts, const std::map<DWORD, RunningHost>& hosts)
{
    ordered_json json = {{"version", 1}, {"parts", ordered_json::array()}, {"hosts", ordered_json::array()}};
    for (const Part& part : parts)
    {
        json["parts"].push_back(
            {{"name", part.name},
             {"path", TextOrNull(part.path)},
             {"fileVersion", TextOrNull(VersionOfFile(part.path))}});
    }
    for (const auto& [id, host] : hosts)
    {
        json["hosts"].push_back(HostAsJson(id, host));
    }
    return json;
}

std::vector<Cell> HostRow(DWORD id, const RunningHost& host)
{
    std::wstring services;
    for (const GroupService& service : host.services)
    {
        services += (services.empty() ? L" (" : L", ") + service.group + L"/" + service.service;
    }
    const Tone tone = IsOld(host) ? Tone::Bad : Tone::Plain;
    return {
        {L"running host"},
        {RunningVersion(host).value_or(L"unknown"), tone},
        {(host.image ? host.image->path : L"cannot be looked at") + L", process " + std::to_wstring(id) +
             services + (IsOld(host) ? L"): an old file, restart these services" : L")"),
         tone}};
}

std::wstring Format(
    const std::vector<Part>& parts, const std::map<DWORD, RunningHost>& hosts, IConsole& console)
{
    std::vector<std::vector<Cell>> rows;
    rows.reserve(parts.size() + hosts.size());
    for (const Part& part : parts)
    {
        rows.push_back(
            {{FromUtf8(part.name)},
             {part.path.empty() ? L"-" : VersionOfFile(part.path).value_or(L"unknown")},
             {part.path.empty() ? L"not registered" : part.path}});
    }
    for (const auto& [id, host] : hosts)
    {
        rows.push_back(HostRow(id, host));
    }
    return FormatTable(rows, console) + (hosts.empty() ? L"\nNo host runs." : L"");
}

} // namespace

void AddVersionCommand(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("version", "Show the versions of all parts, and which host runs which");
    const auto isJson = std::make_shared<bool>(false);
    command->add_flag("--json", *isJson, "Write JSON");
    command->callback([isJson, &console] {
        const std::vector<Part> parts = FindParts();
        const std::map<DWORD, RunningHost> hosts = FindHosts();
        console.Out(*isJson ? FromUtf8(AsJson(parts, hosts).dump(2)) : Format(parts, hosts, console));
        if (std::ranges::any_of(hosts, [](const auto& host) { return IsOld(host.second); }))
        {
            throw CToolError(ExitCode::Findings, {});
        }
    });
}

} // namespace TxCtl
