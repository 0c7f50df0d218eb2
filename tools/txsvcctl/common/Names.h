#pragma once

#include <optional>
#include <string>

namespace TxCtl
{

/// Service names, group names, registry names and paths are compared as Windows does: without case, by code
/// unit.
[[nodiscard]] bool IsSameName(const std::wstring& left, const std::wstring& right) noexcept;

/// Refuses what the service manager, the registry or the host's list of services could not hold or would
/// read as something else.
/// @throws CToolError with ExitCode::Usage
void CheckServiceName(const std::wstring& name);

/// The same for a group, whose name is also a registry key and the host's command-line argument.
/// @throws CToolError with ExitCode::Usage
void CheckGroupName(const std::wstring& name);

/// The form in which the registry holds a CLSID: braces and upper-case digits.
/// @return nothing unless the text is a CLSID in braces; a program id is none, though CLSIDFromString takes
/// it.
/// @see https://learn.microsoft.com/windows/win32/api/combaseapi/nf-combaseapi-clsidfromstring
[[nodiscard]] std::optional<std::wstring> CanonicalClsid(const std::wstring& text);

/// The full path of what a path means in the current folder. The file need not exist.
/// @throws CToolError
[[nodiscard]] std::wstring AbsolutePath(const std::wstring& path);

} // namespace TxCtl
