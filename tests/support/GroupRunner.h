#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "support/Process.h"

/// Runs an unmodified service executable with several services in ONE process, as the service control manager
/// of Windows does. Wine's own manager starts a process for each service, so this class plays the manager's
/// side of Wine's control pipe towards the executable; the states stay with the real manager, where the
/// services must exist (CInstallation) and where everybody else sees them.
///
///     CGroupRunner host(L"\"C:\\bin\\TxSvHost.exe\" /Core");
///     host.StartAndWait(L"alpha");
///     host.StartAndWait(L"beta", {L"an argument"});
///     host.Stop(L"alpha");
///     host.Stop(L"beta");
///     EXPECT_EQ(host.WaitForExit(), 0U);
///
/// What a test may want to see is returned; what keeps the runner from doing its work is thrown as
/// std::runtime_error. Every wait has an end.
///
/// The real manager has no process of its own behind these services: its ControlService fails with 1061 and
/// its StartServiceW starts a second process. Use Start and Stop; test what calls those two itself (the
/// group's stop through COM, "/startservices") with services that the real manager started.
///
/// Threads: one at a time. Only one program may start services meanwhile: the next start of any other service
/// takes the pipe number which this host looks for until it is connected.
class CGroupRunner
{
    static constexpr DWORD kTimeoutMs = 60000; ///< For a machine that does much else.

public:
    /// Starts the executable and returns when it has called StartServiceCtrlDispatcherW.
    /// @param commandLine as the manager would have it in its image path: program (quoted) and arguments.
    explicit CGroupRunner(const std::wstring& commandLine);

    /// Ends the process by force unless it has ended. What then still counts as started is reported to the
    /// manager as stopped.
    ~CGroupRunner();
    CGroupRunner(const CGroupRunner&) = delete;
    CGroupRunner& operator=(const CGroupRunner&) = delete;

    /// Marks the service as pending and has the dispatcher start its thread; does not wait for the service.
    /// @param arguments what ServiceMain gets after the service's name.
    /// @return 0, or the dispatcher's refusal.
    [[nodiscard]] DWORD Start(const std::wstring& name, const std::vector<std::wstring>& arguments = {});

    /// Start, then waits for SERVICE_RUNNING; throws when either fails.
    void StartAndWait(const std::wstring& name, const std::vector<std::wstring>& arguments = {});

    /// Sends the control, waits for SERVICE_STOPPED and for the end of the service's thread.
    ///
    /// The thread matters: Wine's dispatcher returns only when a service reports SERVICE_STOPPED after the
    /// threads of all others are gone. If two report it while both threads run, it never returns.
    void Stop(const std::wstring& name);

    /// @return false when the time is over, or at once when the process ended in another state.
    [[nodiscard]] bool WaitForState(
        const std::wstring& name, DWORD state, DWORD timeoutMs = kTimeoutMs) const;

    /// Waits until the thread of a service that has stopped has ended and the dispatcher has taken note of
    /// it; for one that stops on its own, before the next one is stopped. True as well if it never started.
    [[nodiscard]] bool WaitForThreadEnd(const std::wstring& name) const;

    /// @return the exit code; throws when the time is over.
    [[nodiscard]] DWORD WaitForExit() { return m_process.value().Wait(); }

    /// Any control for a service of the dispatcher's; see the implementation.
    DWORD Request(const std::wstring& name, DWORD control, const std::wstring& arguments = {});

    [[nodiscard]] HANDLE Process() const noexcept { return m_process.value().Handle(); } ///< Borrowed.
    [[nodiscard]] DWORD ProcessId() const noexcept { return m_process.value().Id(); }

private:
    [[nodiscard]] bool awaitHost(const std::function<BOOL(OVERLAPPED&)>& begin, DWORD& transferred) const;
    [[nodiscard]] std::vector<DWORD> newThreads();
    [[nodiscard]] bool isServiceThread(DWORD thread) const;

    struct Service
    {
        Basalt::CServiceHandle entry; ///< The manager's, kept: to open it takes longer than to report.
        std::vector<DWORD> threads;   ///< New ones at its last start.
    };

    Basalt::CFile m_pipe;
    std::optional<CProcess> m_process;
    std::map<std::wstring, Service> m_services;
    FILETIME m_newestThread{}; ///< When it began, of those looked at.
};

/// Takes the number of Wine's next control pipe, as the manager does for a start of its own. A service
/// program that is run by hand then fails at once to connect, instead of waiting for the pipe of a service
/// that still runs.
/// @return the number. @throws std::runtime_error
DWORD SkipControlPipe();
