#pragma once

#include <string>
#include <vector>

namespace TxCtl
{

[[nodiscard]] bool HoldsName(const std::vector<std::wstring>& names, const std::wstring& name) noexcept;

/// ": did you mean 'X'?" with the most similar of the known names; empty when none is similar.
[[nodiscard]] std::wstring DidYouMean(const std::wstring& name, const std::vector<std::wstring>& known);

/// Whether others than administrators, the system and this user may change a file or folder. False also when
/// it cannot be asked.
[[nodiscard]] bool CanUsersWrite(const std::wstring& path);

} // namespace TxCtl
