#pragma once

#include <windows.h>

/// @file
/// What the service control manager is asked to do with the services of a group: stop them for an update, and
/// start the core group's again. Logs as a part of the control manager. Threads: any.

/// Stops the services of the group that this process runs, and keeps those from running that are started
/// afterwards (IsReduceRestartStopping).
///
/// @param releaseConfig destroys the configuration's instance at the end, whatever the outcome.
/// @return S_OK for a group without services. Otherwise a failure, on purpose also when every service has
///         stopped: a stop for an update always ends the process.
[[nodiscard]] HRESULT StopServices(bool releaseConfig) noexcept;

/// Stops one service and waits up to ten seconds for its end. One that does not exist or does not run
/// counts as stopped.
[[nodiscard]] HRESULT StopService(const wchar_t* serviceName) noexcept;

/// Starts the services of the core group without waiting for them.
///
/// @param releaseConfig destroys the configuration's instance at the end, whatever the outcome.
/// @return S_OK for a group without services. Otherwise a failure, on purpose also when every service was
///         started: it does not say that none was.
HRESULT StartServices(bool releaseConfig) noexcept;
