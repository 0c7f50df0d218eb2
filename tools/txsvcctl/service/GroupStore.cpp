#include "txsvcctl/service/GroupStore.h"

#include <algorithm>

#include "base/RegKey.h"
#include "contract/Keys.h"
#include "contract/ServiceList.h"
#include "control/RegistryLink.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/RegistryNames.h"

namespace TxCtl
{

namespace
{

/// What HKEY_CLASSES_ROOT shows of the machine.
constexpr wchar_t kClassesPath[] = L"Software\\Classes\\";

std::wstring ServerPath(const std::wstring& clsid)
{
    return kClassesPath + Contract::ServerKey(clsid);
}

std::wstring ClassPath(const std::wstring& clsid)
{
    const std::wstring server = ServerPath(clsid);
    return server.substr(0, server.rfind(L'\\'));
}

/// @return nothing when the key or the value is missing.
std::optional<std::wstring> ReadString(const std::wstring& path, const std::wstring& name)
{
    Basalt::CRegKey key;
    DWORD status = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ);
    std::wstring value;
    if (status == ERROR_SUCCESS)
    {
        status = key.ReadString(name.c_str(), value);
    }
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return std::nullopt;
    }
    CheckStatus(status, L"read registry value", path + L"\\" + name);
    return value;
}

/// The learnt band of a group without services means nothing; anything else in the key is somebody's setting.
void DeleteKeyOfEmptyGroup(CRegistryChange& change, const std::wstring& path)
{
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return;
    }
    const std::vector<std::wstring> values = ValueNames(key, path);
    if (values.size() == 1 && IsSameName(values.front(), Contract::kBucketLimitValue) &&
        SubKeyNames(key, path).empty())
    {
        change.DeleteValue(path, Contract::kBucketLimitValue);
    }
    key.Close();
    change.DeleteKeyIfEmpty(path);
}

} // namespace

std::vector<std::wstring> CGroupStore::Groups() const
{
    const std::wstring path = HostPath();
    Basalt::CRegKey key;
    const DWORD status = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return {};
    }
    CheckStatus(status, L"open registry key", path);
    return SubKeyNames(key, path);
}

std::vector<std::wstring> CGroupStore::Services(const std::wstring& group) const
{
    return Contract::SplitServiceList(ReadString(GroupPath(group), {}).value_or(L""));
}

bool CGroupStore::HasServices() const
{
    return std::ranges::any_of(
        Groups(), [this](const std::wstring& group) { return !Services(group).empty(); });
}

std::optional<std::wstring> CGroupStore::FindService(
    const std::wstring& group, const std::wstring& service) const
{
    for (std::wstring& name : Services(group))
    {
        if (IsSameName(name, service))
        {
            return std::move(name);
        }
    }
    return std::nullopt;
}

std::optional<std::wstring> CGroupStore::Clsid(const std::wstring& group, const std::wstring& service) const
{
    return ReadString(GroupPath(group), service);
}

std::optional<std::wstring> CGroupStore::Module(const std::wstring& clsid) const
{
    return ReadString(ServerPath(clsid), {});
}

std::vector<std::wstring> CGroupStore::OtherGroupsOf(const GroupService& service) const
{
    std::vector<std::wstring> groups;
    for (const std::wstring& group : Groups())
    {
        if (!IsSameName(group, service.group) && FindService(group, service.service))
        {
            groups.push_back(group);
        }
    }
    return groups;
}

std::vector<GroupService> CGroupStore::OtherUsersOf(
    const std::wstring& clsid, const GroupService& service) const
{
    std::vector<GroupService> users;
    for (const std::wstring& group : Groups())
    {
        for (const std::wstring& name : Services(group))
        {
            const bool isSelf = IsSameName(group, service.group) && IsSameName(name, service.service);
            if (!isSelf && IsSameName(Clsid(group, name).value_or(L""), clsid))
            {
                users.push_back({group, name});
            }
        }
    }
    return users;
}

void CGroupStore::AddService(
    CRegistryChange& change, const GroupService& service, const std::wstring& clsid) const
{
    const std::wstring path = GroupPath(service.group);
    change.SetString(path, service.service, clsid);
    if (!FindService(service.group, service.service))
    {
        std::vector<std::wstring> names = Services(service.group);
        names.push_back(service.service);
        change.SetString(path, {}, Contract::JoinServiceList(names));
    }
}

void CGroupStore::RemoveService(CRegistryChange& change, const GroupService& service) const
{
    const std::wstring path = GroupPath(service.group);
    std::vector<std::wstring> names = Services(service.group);
    std::erase_if(names, [&](const std::wstring& name) { return IsSameName(name, service.service); });
    if (names.empty())
    {
        change.DeleteValue(path, {});
    }
    else
    {
        change.SetString(path, {}, Contract::JoinServiceList(names));
    }
    change.DeleteValue(path, service.service);
    if (names.empty())
    {
        DeleteKeyOfEmptyGroup(change, path);
    }
}

void CGroupStore::RegisterClass(
    CRegistryChange& change, const std::wstring& clsid, const std::wstring& module) const
{
    const std::wstring path = ServerPath(clsid);
    change.SetString(path, {}, module);
    change.SetString(path, L"ThreadingModel", L"Both");
}

void CGroupStore::UnregisterClass(CRegistryChange& change, const std::wstring& clsid) const
{
    change.DeleteKey(ServerPath(clsid));
    change.DeleteKeyIfEmpty(ClassPath(clsid));
}

} // namespace TxCtl
