#pragma once

#include <windows.h>

#include <string>

#include "base/Text.h"

namespace Basalt
{

/// Name of the event that asks the host process with this id to trim its working set. The working-set handler
/// creates it; whoever wants a trim opens it with EVENT_MODIFY_STATE and sets it.
/// @throws std::bad_alloc
[[nodiscard]] inline std::wstring WorkingSetEventName(DWORD processId)
{
    return FormatText(L"%s_%lu", L"{65CF2DA9-5B1A-4c67-B48E-78E64C4AD860}", processId);
}

} // namespace Basalt
