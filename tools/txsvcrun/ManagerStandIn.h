#pragma once

#include <windows.h>

#include <string>

/// The service manager's part, played for the one service of this process: takes the handler that the service
/// registers and the states that it reports, and sends it STOP for Ctrl+C. The real manager is not asked and
/// learns nothing.
///
/// Calls that the service makes through another module or GetProcAddress still go to the real one, and fail.
namespace TxRun::ManagerStandIn
{

/// Has the calls of this program arrive here, and Ctrl+C. Threads: the main thread, before the service runs.
/// @param service its name, for what is shown.
void Begin(const std::wstring& service);

/// Has the calls of a service's module arrive here. Threads: the service's, before its TxServiceMain.
void TakeCallsOf(HMODULE module) noexcept;

/// What the service has reported last; all 0 before its first report. Threads: any.
[[nodiscard]] SERVICE_STATUS LastStatus() noexcept;

} // namespace TxRun::ManagerStandIn
