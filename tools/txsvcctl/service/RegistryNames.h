#pragma once

#include <string>
#include <vector>

#include "base/RegKey.h"

namespace TxCtl
{

/// The names of a key's direct sub-keys or of its values (the default value's is empty), in the registry's
/// order.
/// @param path for the message.
/// @throws CToolError
[[nodiscard]] std::vector<std::wstring> SubKeyNames(const Basalt::CRegKey& key, const std::wstring& path);
[[nodiscard]] std::vector<std::wstring> ValueNames(const Basalt::CRegKey& key, const std::wstring& path);

/// The hosts' key, below HKEY_LOCAL_MACHINE, by the road that exists also before the registry link does.
[[nodiscard]] std::wstring HostPath();
[[nodiscard]] std::wstring GroupPath(const std::wstring& group);

} // namespace TxCtl
