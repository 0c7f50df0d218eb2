#pragma once

#include <windows.h>

#include <memory>

#include "base/DllWrapperBase.h"
#include "logging/LogControllerHelper.h"

namespace ETWLogging
{

/// Has the log controller library run the event-tracing session of this process for its scope.
///
/// The process runs with or without it: every failure ends in the status. Nothing is logged, since this
/// object stands before and after all logging, and nothing thrown. Threads: one.
class AutoLogController : public Basalt::CDllWrapperBase
{
public:
    // The library's entry points. Names are borrowed for the call.
    using StartFunction = DWORD WINAPI(const wchar_t* applicationName);
    using StopFunction = DWORD WINAPI(DWORD_PTR zero, const wchar_t* applicationName);
    using RestartSessionFunction = DWORD WINAPI(const wchar_t* applicationName);
    using FlushBuffersFunction = DWORD WINAPI(const wchar_t* applicationName);

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

    StartFunction* m_start = nullptr;
    StopFunction* m_stop = nullptr;
    RestartSessionFunction* m_restartSession = nullptr;
    FlushBuffersFunction* m_flushBuffers = nullptr;
    DWORD m_status = ERROR_SUCCESS;
    const wchar_t* m_applicationName;
    std::unique_ptr<LogControllerHelper> m_helper;
};

} // namespace ETWLogging
