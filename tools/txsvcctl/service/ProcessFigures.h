#pragma once

#include <windows.h>

#include <optional>

namespace TxCtl
{

/// What a process holds and has used.
struct ProcessFigures
{
    ULONGLONG privateBytes = 0;
    ULONGLONG workingSetBytes = 0;
    DWORD threads = 0;
    DWORD handles = 0;
    double cpuSeconds = 0;
    double upSeconds = 0;
    FILETIME started{};
};

/// Nothing when the process is gone, or access to it is denied.
[[nodiscard]] std::optional<ProcessFigures> FiguresOf(DWORD processId);

} // namespace TxCtl
