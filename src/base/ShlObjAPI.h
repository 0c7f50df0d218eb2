#pragma once

#include <windows.h>

#include <string>

namespace Basalt
{

/// What the program needs of the shell. shell32.dll is loaded from the system folder for a call and freed
/// after it: it brings much along that the host has no other use for.
///
/// Threads: any.
/// @see https://learn.microsoft.com/windows/win32/api/shlobj_core/nf-shlobj_core-shgetknownfolderpath
class ShlObjAPI
{
public:
    /// @param folderId a FOLDERID value; the machine's default user does not come into it.
    /// @param path     receives the folder without a backslash at its end; untouched on failure.
    /// @return S_OK or a failed HRESULT.
    [[nodiscard]] HRESULT GetKnownFolder(const GUID& folderId, std::wstring& path) const noexcept;
};

} // namespace Basalt
