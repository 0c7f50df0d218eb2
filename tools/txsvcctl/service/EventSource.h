#pragma once

#include <string>

#include "txsvcctl/service/RegistryChange.h"

namespace TxCtl
{

/// Tells the Windows event log where the texts of the hosts' events are: in the host.
/// @throws CToolError, as the next one.
void RegisterEventSource(CRegistryChange& change, const std::wstring& host);
void UnregisterEventSource(CRegistryChange& change);

/// Why a viewer of the event log would find no texts; empty when it finds them.
[[nodiscard]] std::wstring EventSourceProblem();

} // namespace TxCtl
