#pragma once

#include <string>

/// @file
/// What a registry symbolic link looks like inside.

namespace Contract
{

/// The one value of a link key, of type REG_LINK: a kernel path without a terminator.
inline constexpr wchar_t kLinkValue[] = L"SymbolicLinkValue";

/// In front of the path of a key below HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kKernelPrefix[] = L"\\Registry\\MACHINE\\";

/// What a new link holds until it gets its target: without a value it could not be told from a plain key.
inline constexpr wchar_t kLinkPlaceholder[] = L"\\";

} // namespace Contract
