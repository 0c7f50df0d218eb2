#pragma once

#include <string>

namespace Basalt
{

/// Full path of the running program, however long.
/// @return empty when the system does not tell it.
/// @throws std::bad_alloc
/// @see https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-getmodulefilenamew
[[nodiscard]] std::wstring ProgramPath();

/// ProgramPath's folder, with a backslash at the end; empty with it.
/// @throws std::bad_alloc
[[nodiscard]] std::wstring ProgramFolder();

/// What a path means in the current folder. The file need not exist.
/// @return empty, with the last error set, when the system does not tell it.
/// @throws std::bad_alloc
/// @see https://learn.microsoft.com/windows/win32/api/fileapi/nf-fileapi-getfullpathnamew
[[nodiscard]] std::wstring FullPath(const std::wstring& path);

} // namespace Basalt
