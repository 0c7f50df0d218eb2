#pragma once

#include <string>

/// @file
/// The host's command line: "...\TxSvHost.exe" /GROUP in the service control manager, or the switch.

namespace Contract
{

/// The host's file name.
inline constexpr wchar_t kHostProgram[] = L"TxSvHost.exe";

/// Exact case, anywhere in the line, the program's own path included: no group may begin with it.
inline constexpr wchar_t kStartServicesSwitch[] = L"/startservices";

/// In front of the group's name; the first one in the argument counts.
inline constexpr wchar_t kGroupDelimiter[] = L"/";

} // namespace Contract
