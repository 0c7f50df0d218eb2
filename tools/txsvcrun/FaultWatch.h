#pragma once

#include <string>

/// Remembers the exceptions that go through this process, so that one can be named after the call guard has
/// swallowed it, and names one that nobody caught before it ends the process.
namespace TxRun::FaultWatch
{

/// @param onUncaught gets the description of what ends the process; called on the thread that faulted.
void Begin(void (*onUncaught)(const std::wstring& fault)) noexcept;

/// What was thrown last on this thread: "access violation (0xC0000005) at MyService.dll+0x1234"; empty when
/// nothing was.
[[nodiscard]] std::wstring LastOnThisThread();

} // namespace TxRun::FaultWatch
