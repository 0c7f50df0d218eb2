#pragma once

#include <windows.h>

#include <nlohmann/json.hpp>
#include <string>

#include "txsvcctl/service/EntryOptions.h"
#include "txsvcctl/service/GroupStore.h"

namespace TxCtl
{

/// Everything of a service that an installation can set.
struct ServiceRecord
{
    GroupService service;
    std::wstring clsid;
    std::wstring module;
    std::wstring host;
    std::wstring displayName;
    DWORD startType = SERVICE_DEMAND_START;
    EntryOptions options;
    bool isExcluded = false; ///< From the wait for the first-run set-up.

    /// What it lacks, so that the host could not run it: "it has no CLSID"; empty when it is whole.
    std::wstring flaw;
};

/// Reads what the registry and the service manager have. What is not there is empty, or what a new entry has.
/// @throws CToolError
[[nodiscard]] ServiceRecord ReadServiceRecord(const GroupService& service);

/// The object that docs/txsvcctl.md describes.
[[nodiscard]] nlohmann::ordered_json RecordAsJson(const ServiceRecord& record);

/// @param where for messages: "groups[0].services[1]".
/// @throws CToolError with ExitCode::Usage
[[nodiscard]] ServiceRecord RecordFromJson(
    const nlohmann::ordered_json& json, const std::wstring& group, const std::wstring& where);

} // namespace TxCtl
