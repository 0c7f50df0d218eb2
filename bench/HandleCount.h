#pragma once

#include <windows.h>

#include <cstddef>

/// Number of handles that a process holds, from the system's own list: GetProcessHandleCount gives no
/// usable number everywhere. The thread pool's handles are among them, so let it warm up before the first
/// count.
[[nodiscard]] std::size_t CountHandles(DWORD processId);
[[nodiscard]] std::size_t CountOwnHandles();

/// Of this process.
[[nodiscard]] std::size_t CountOwnThreads();
