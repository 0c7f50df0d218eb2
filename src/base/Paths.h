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

} // namespace Basalt
