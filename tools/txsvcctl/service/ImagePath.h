#pragma once

#include <string>

namespace TxCtl
{

/// The command line of a service in the service manager: the host's program and the group that it runs.
struct ImagePath
{
    std::wstring program;  ///< without quotes
    std::wstring argument; ///< everything behind the program, without quotes around it
};

/// "C:\...\TxSvHost.exe" /GROUP, the program always in quotes: without them Windows would try every part of
/// a path with blanks as a program. A group name with blanks makes one quoted argument.
[[nodiscard]] std::wstring FormatImagePath(const std::wstring& program, const std::wstring& group);

[[nodiscard]] ImagePath ParseImagePath(const std::wstring& text);

/// True when the argument selects this group, whatever the program is.
[[nodiscard]] bool RunsGroup(const ImagePath& imagePath, const std::wstring& group);

} // namespace TxCtl
