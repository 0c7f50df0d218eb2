#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

/// All that is known of one service. What could not be found out is absent and has its line in problems.
struct ServiceReport
{
    std::wstring name;
    std::optional<std::wstring> clsid;
    std::optional<std::wstring> module;
    std::optional<std::wstring> moduleVersion;
    std::optional<ServiceConfig> entry;
    std::optional<ServiceState> state;
    std::vector<std::wstring> problems;
};

struct GroupReport
{
    std::wstring name;
    std::vector<ServiceReport> services;
    std::vector<std::wstring> problems;
};

/// Reads the registry, the service manager and the module files; changes nothing.
/// @param group only this one; all without it.
/// @throws CToolError when the group does not exist or nothing can be read at all; what is wrong with single
///         groups and services becomes part of the report.
[[nodiscard]] std::vector<GroupReport> ReportGroups(const std::optional<std::wstring>& group);

[[nodiscard]] std::wstring FormatReport(const std::vector<GroupReport>& groups);
/// The object that docs/txsvcctl.md describes.
[[nodiscard]] nlohmann::ordered_json ReportAsJson(const std::vector<GroupReport>& groups);

} // namespace TxCtl
