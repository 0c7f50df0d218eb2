#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "base/VersionInfo.h"

namespace TxCtl
{

/// The program file of a running process.
struct RunningImage
{
    std::wstring path;                      ///< As it was called when the process started.
    std::optional<Basalt::Version> version; ///< Of what runs, whatever the file is by now.
    /// Whether the file of that name is still what runs. Nothing when one of the two cannot be read.
    std::optional<bool> isCurrent;
};

/// Nothing when the process is gone, or access to it is denied.
[[nodiscard]] std::optional<RunningImage> ImageOf(DWORD processId);

} // namespace TxCtl
