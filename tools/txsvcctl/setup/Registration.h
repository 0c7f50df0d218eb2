#pragma once

#include <string>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// Makes the product's classes known to COM: the proxies and stubs, and the identity under which updaters of
/// every account find group control, administrators and the system alone.
/// @param proxies full path of TxSvHostPS.dll.
/// @throws CToolError
void RegisterClasses(const std::wstring& proxies);

/// Takes both back. A failure is a note: what else is to go goes.
void UnregisterClasses(const std::wstring& proxies, IConsole& console);

/// Removes every group with its services, the settings of hosts and log, and the log's files.
/// What cannot be removed is a note.
/// @param iniPath the log.ini beside the hosts, which may name the log's folder.
void PurgeSettings(const std::wstring& iniPath, IConsole& console);

} // namespace TxCtl
