#pragma once

#include <windows.h>

#include <array>
#include <cwchar>

namespace Contract
{

/// Name of the event that asks the host process with this id to trim its working set. The working-set handler
/// creates it; whoever wants a trim opens it with EVENT_MODIFY_STATE and sets it.
[[nodiscard]] inline std::array<wchar_t, 260> WorkingSetEventName(DWORD processId) noexcept
{
    std::array<wchar_t, 260> name{};
    ::_snwprintf(
        name.data(), name.size() - 1, L"%s_%lu", L"{65CF2DA9-5B1A-4c67-B48E-78E64C4AD860}", processId);
    return name;
}

} // namespace Contract
