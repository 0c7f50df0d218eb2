#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "txsvcctl/common/Console.h"
#include "txsvcctl/transfer/ServiceRecord.h"

namespace TxCtl
{

/// What export writes and import reads.
struct Document
{
    using Settings = std::vector<std::pair<std::wstring, std::wstring>>; ///< names and values

    std::vector<ServiceRecord> services; ///< Group after group, each in its order.
    Settings hostSettings;
    std::optional<Settings> logSettings; ///< All groups share them: only with all groups.
};

/// Reads the registry and the service manager.
/// @param group only this one; all without it.
/// @param isWhole false when something had to be left out; the console has heard what.
/// @throws CToolError
[[nodiscard]] Document ReadMachine(
    const std::optional<std::wstring>& group, bool& isWhole, IConsole& console);

/// The object that docs/txsvcctl.md describes.
[[nodiscard]] nlohmann::ordered_json DocumentAsJson(const Document& document);

/// Reads a file that export wrote, in UTF-8 or UTF-16, and that somebody may have edited.
/// @throws CToolError, with ExitCode::Usage for what is wrong in the file.
[[nodiscard]] Document ReadDocument(const std::wstring& path);

} // namespace TxCtl
