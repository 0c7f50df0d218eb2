#pragma once

#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

/// What stands in the registry and in the service manager about one service. What is not there, or could not
/// be read, is absent.
struct ServiceReport
{
    std::wstring name;
    std::optional<std::wstring> clsid;
    std::optional<std::wstring> module;
    std::optional<ServiceConfig> entry;
    std::optional<ServiceState> state;
    std::vector<std::wstring> failures; ///< Why something could not be read.
    std::vector<std::wstring> problems; ///< What is wrong with it; nothing until somebody has looked.
};

struct GroupReport
{
    std::wstring name;
    std::vector<ServiceReport> services;
    std::vector<std::wstring> failures;
    std::vector<std::wstring> problems;

    /// Null when the group does not list it.
    [[nodiscard]] const ServiceReport* Find(const std::wstring& service) const;
};

/// Reads each thing once; changes nothing.
/// @param group only this one; all without it.
/// @throws CToolError when the group does not exist or nothing can be read at all; what cannot be read of
///         single groups and services becomes part of the report.
[[nodiscard]] std::vector<GroupReport> ReportGroups(const std::optional<std::wstring>& group);

/// "1.2.3.4"; nothing when the module has no version.
[[nodiscard]] std::optional<std::wstring> ModuleVersion(const ServiceReport& service);

} // namespace TxCtl
