#pragma once

#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/service/RegistryChange.h"

namespace TxCtl
{

struct GroupService
{
    std::wstring group;
    std::wstring service;
};

/// The host's groups and services in the registry, and the classes of their subsystems.
///
/// Everything is read afresh at each call. Settings are written below the 32-bit key, to which the host's own
/// key is a link; classes below Software\Classes of the 64-bit view, as the host is a 64-bit process. What
/// writes takes the change to write in, so that the caller can undo several steps together.
/// All operations throw CToolError.
class CGroupStore
{
public:
    [[nodiscard]] std::vector<std::wstring> Groups() const;
    /// The group's list in its order; empty for a missing group or list.
    [[nodiscard]] std::vector<std::wstring> Services(const std::wstring& group) const;
    /// Whether any group lists any service.
    [[nodiscard]] bool HasServices() const;
    /// The name as the group's list has it, which may differ in case; nothing when the list lacks it.
    [[nodiscard]] std::optional<std::wstring> FindService(
        const std::wstring& group, const std::wstring& service) const;
    /// The CLSID as it stands in the registry, right or wrong; nothing when there is none.
    [[nodiscard]] std::optional<std::wstring> Clsid(
        const std::wstring& group, const std::wstring& service) const;
    /// The module that a class is registered for; nothing when the class is unknown.
    [[nodiscard]] std::optional<std::wstring> Module(const std::wstring& clsid) const;

    /// The other groups whose list holds the service.
    [[nodiscard]] std::vector<std::wstring> OtherGroupsOf(const GroupService& service) const;
    /// The other services, of any group, that use the class.
    [[nodiscard]] std::vector<GroupService> OtherUsersOf(
        const std::wstring& clsid, const GroupService& service) const;

    /// Adds the service to its group's list, unless it stands there, and sets its CLSID.
    void AddService(CRegistryChange& change, const GroupService& service, const std::wstring& clsid) const;
    /// Takes the service out of the list, its CLSID too, and the group's key with the last service.
    void RemoveService(CRegistryChange& change, const GroupService& service) const;
    void RegisterClass(CRegistryChange& change, const std::wstring& clsid, const std::wstring& module) const;
    /// @param clsid in canonical form: it becomes part of a path whose key is deleted.
    void UnregisterClass(CRegistryChange& change, const std::wstring& clsid) const;
};

} // namespace TxCtl
