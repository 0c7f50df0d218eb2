#pragma once

#include <string>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

struct ImportRequest
{
    std::wstring file;
    bool isDryRun = false;
    bool isJson = false;
    bool replaceKey = false;    ///< As of InstallRequest.
    bool replaceModule = false; ///< As of InstallRequest.
};

/// Makes the machine what the document says, and leaves alone what it does not name. All is checked before
/// the first change; when a step fails, those before it are undone.
/// @throws CToolError; with ExitCode::Findings when a service was left as it is.
void Import(const ImportRequest& request, IConsole& console);

} // namespace TxCtl
