#pragma once

#include <windows.h>

#include "base/RegKey.h"

/// @file
/// The product keeps its machine-wide settings in the 32-bit registry view. 64-bit components that open
/// "Software\Tarvex" in their own view reach the same data through a registry symbolic link, which every
/// start of the host makes sure of.
///
/// All paths are below HKEY_LOCAL_MACHINE, without a backslash in front, in the process's own view. The
/// operations log nothing and report no code: the host starts with or without the link.
/// Threads: one at a time. Two processes that make the same link at once may delete each other's before the
/// last one stays: whoever opens the path in between finds nothing, or a link that leads nowhere.

/// True when the key is a symbolic link, wherever it leads. A missing key is created as a plain empty one.
[[nodiscard]] bool IsRegistryLink(const wchar_t* linkPath) noexcept;

/// Makes the key at @p linkPath a symbolic link to the key at @p targetPath.
///
/// @param force        removes what stands at the link path first, with all its sub-keys and values.
/// @param ensureTarget creates the target key when it is missing.
/// @return true when the link was made. On failure the link path may be left empty or as a link that leads
///         nowhere. A call with @p force mends both, but a host makes none for the latter, since
///         IsRegistryLink takes it for a link: only "txsvcctl ... --replace-key" does.
bool CreateRegistryLink(
    const wchar_t* linkPath, const wchar_t* targetPath, bool force, bool ensureTarget) noexcept;

/// Creates a new link key that leads nowhere yet, removing an existing key of that path when @p force is set.
/// @param depth number of the pass, 0 for a caller; the removal gives up after a few.
/// @return the open key, or one that holds nothing.
[[nodiscard]] Basalt::CRegKey RecreateLinkKey(const wchar_t* linkPath, bool force, unsigned depth) noexcept;

/// Deletes the key that the handle refers to, a link key itself rather than its target.
/// @see https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-zwdeletekey
[[nodiscard]] bool DeleteKeyByHandle(HKEY key) noexcept;
