#pragma once

#include <windows.h>

namespace TxCtl
{

/// What an error of the service manager means for an administrator, and what to do about it; null for all
/// others.
[[nodiscard]] const wchar_t* ScmRemedy(DWORD error) noexcept;

} // namespace TxCtl
