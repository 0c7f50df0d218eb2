#pragma once

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// What stands at HKEY_LOCAL_MACHINE\Software\Tarvex, where the host reads its settings.
enum class ViewLinkState
{
    Missing,
    EmptyKey,
    FilledKey, ///< An ordinary key with contents, which making the link would destroy.
    Link,      ///< The link to the 32-bit key, as the host makes it at its first start.
    OtherLink, ///< A link to somewhere else: the host would not see what this program writes.
};

/// Looks without changing anything.
/// @throws CToolError
[[nodiscard]] ViewLinkState InspectViewLink();

/// Makes the link where it is missing, so that the host reads what is written to the 32-bit key already at
/// its first start.
/// @param replace what stands there goes, with all its contents; without it such a key is refused.
/// @throws CToolError
void EnsureViewLink(bool replace, IConsole& console);

/// Says on the error stream when the host would not read what this program shows.
void WarnAboutViewLink(IConsole& console);

} // namespace TxCtl
