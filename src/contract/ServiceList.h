#pragma once

#include <string>
#include <vector>

namespace Contract
{

/// A group's services, as its key's default value holds them: separated by any of ";", ":" and ",". Runs of
/// separators count as one, so no empty name arises.
/// @throws std::bad_alloc
[[nodiscard]] std::vector<std::wstring> SplitServiceList(const std::wstring& list);

/// @throws std::bad_alloc
[[nodiscard]] std::wstring JoinServiceList(const std::vector<std::wstring>& names);

} // namespace Contract
