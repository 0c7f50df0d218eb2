#pragma once

#include <windows.h>

/// Asks, at process start, whether the update manager is installing an update: it then stops and restarts the
/// group's services itself, and the host must not start them.
///
/// Touches COM only while the update manager runs, and leaves it as it was.
/// @return non-zero while an update is being installed. Every failure reads as 0: an update client that is
///         dead, missing or not trusted must not keep the services from running. The log tells what it was.
/// Threads: the main thread, before there are others.
[[nodiscard]] DWORD IsInstallingUpdate() noexcept;
