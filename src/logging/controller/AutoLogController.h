#pragma once

#include <windows.h>

#include <memory>

#include "TxLogController.h"
#include "base/DllWrapperBase.h"
#include "logging/controller/LogControllerHelper.h"

namespace ETWLogging
{

/// Has the log controller library run the event-tracing session of this process for its scope.
///
/// The process runs with or without it: every failure ends in the status. Nothing is logged, since this
/// object stands before and after all logging, and nothing thrown. Threads: one.
class AutoLogController : public Basalt::CDllWrapperBase
{
public:
    /// Finds, loads and starts the controller.
    /// @param applicationName borrowed: must outlive the object.
    explicit AutoLogController(const wchar_t* applicationName) noexcept;
    /// Stops the controller, also one that was never started for lack of another entry point, and unloads it.
    ~AutoLogController() override;
    AutoLogController(const AutoLogController&) = delete;
    AutoLogController& operator=(const AutoLogController&) = delete;

    /// What "Start" returned; before it came to that ERROR_OUTOFMEMORY (14), ERROR_ACCESS_DENIED (5) when no
    /// trusted library was found, or the error of loading it or of its first missing entry point.
    [[nodiscard]] DWORD Status() const noexcept { return m_status; }

private:
    [[nodiscard]] DWORD start() noexcept;
    [[nodiscard]] DWORD loadLibrary() noexcept;
    [[nodiscard]] DWORD resolveEntryPoints() noexcept;

    TxSdk::LogControllerStart* m_start = nullptr;
    TxSdk::LogControllerStop* m_stop = nullptr;
    TxSdk::LogControllerRestartSession* m_restartSession = nullptr;
    TxSdk::LogControllerFlushBuffers* m_flushBuffers = nullptr;
    DWORD m_status = ERROR_SUCCESS;
    const wchar_t* m_applicationName;
    std::unique_ptr<LogControllerHelper> m_helper;
};

} // namespace ETWLogging
