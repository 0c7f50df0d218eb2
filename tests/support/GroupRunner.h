#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"

/// Runs an unmodified service executable with several services in ONE process, as the service control manager
/// of Windows does. Wine's own manager starts a process for each service, so this class plays the manager's
/// side of Wine's control pipe towards the executable; the states stay with the real manager, where the
/// services must exist (CServiceScope, CTestGroup) and where everybody else sees them.
///
///     CGroupRunner host(L"\"C:\\bin\\TxSvHost.exe\" /Core");
///     host.StartAndWait(L"alpha");
///     host.StartAndWait(L"beta", {L"an argument"});
///     host.Stop(L"alpha");
///     host.Stop(L"beta");
///     EXPECT_EQ(host.WaitForExit(), 0U);
///
/// What a test may want to see (answers, states, exit code) is returned; what keeps the runner from doing its
/// work is thrown as std::runtime_error with a text that names the operation and the code. Every wait has an
/// end.
///
/// The real manager has no process of its own behind these services: its ControlService fails with 1061 and
/// its StartServiceW starts a second process. Use Control, Start and Stop; test what calls those two itself
/// (the group's stop through COM, "/startservices") with services that the real manager started.
///
/// Threads: one at a time. Only one program may start services meanwhile: the next start of any other service
/// takes the pipe number which this host looks for until it is connected.
class CGroupRunner
{
public:
    static constexpr DWORD kDefaultTimeoutMs = 30000; ///< For a machine that does much else.

    /// Starts the executable and returns when it has called StartServiceCtrlDispatcherW.
    /// @param commandLine as the manager would have it in its image path: program (quoted) and arguments.
    /// @param timeoutMs   how long the connection and each later request may take.
    /// @throws std::runtime_error when it ends (the text holds its exit code) or the time is over before.
    explicit CGroupRunner(const std::wstring& commandLine, DWORD timeoutMs = kDefaultTimeoutMs);

    /// Ends the process: by stopping the services that still run, and by force if that does not help. What
    /// then still counts as started is reported to the manager as stopped.
    ~CGroupRunner();
    CGroupRunner(const CGroupRunner&) = delete;
    CGroupRunner& operator=(const CGroupRunner&) = delete;

    /// Marks the service as pending and has the dispatcher start its thread; does not wait for the service.
    /// @param arguments what ServiceMain gets after the service's name.
    /// @return 0; or 1060 when the manager does not know the service, 1056 when it is not stopped, else the
    ///         dispatcher's refusal (ERROR_INVALID_PARAMETER for a name that is not in its table).
    [[nodiscard]] DWORD Start(const std::wstring& name, const std::vector<std::wstring>& arguments = {});

    /// Start, then waits for SERVICE_RUNNING; throws when either fails.
    void StartAndWait(const std::wstring& name, const std::vector<std::wstring>& arguments = {});

    /// Sends a control (SERVICE_CONTROL_STOP, ...), whether or not the service says that it accepts it, and
    /// returns the answer of its handler; ERROR_SERVICE_NOT_ACTIVE when it is stopped, ERROR_PROCESS_ABORTED
    /// when the process ended before it answered.
    [[nodiscard]] DWORD Control(const std::wstring& name, DWORD control);

    /// Stops a service: sends the control, waits for SERVICE_STOPPED and for the end of its thread. Throws
    /// when one of them fails.
    ///
    /// The thread matters: Wine's dispatcher returns only when a service reports SERVICE_STOPPED after the
    /// threads of all others are gone. If two report it while both threads run, it never returns.
    void Stop(const std::wstring& name);

    /// @return false when the time is over, or at once when the process ended in another state.
    [[nodiscard]] bool WaitForState(
        const std::wstring& name, DWORD state, DWORD timeoutMs = kDefaultTimeoutMs) const;

    /// Waits until the thread of the service's last start has ended and the dispatcher has taken note of it;
    /// for a service that stops on its own, before the next one is stopped. True as well if it never started.
    [[nodiscard]] bool WaitForThreadEnd(const std::wstring& name, DWORD timeoutMs = kDefaultTimeoutMs) const;

    /// @return the exit code, or nothing when the time is over.
    [[nodiscard]] std::optional<DWORD> WaitForExit(DWORD timeoutMs = kDefaultTimeoutMs) const;

    [[nodiscard]] HANDLE Process() const noexcept { return m_process.Get(); } ///< Borrowed.
    [[nodiscard]] DWORD ProcessId() const noexcept { return m_processId; }

private:
    enum class EDirection
    {
        Send,
        Receive,
    };

    void createPipe();
    void startProcess(const std::wstring& commandLine);
    void waitForConnection();
    void findDispatcher();
    void awaitState(const std::wstring& name, DWORD state) const;
    DWORD transact(const std::wstring& name, DWORD control, const std::wstring& arguments);
    DWORD transfer(void* data, DWORD size, EDirection direction);
    DWORD finish(BOOL completed, OVERLAPPED& operation, DWORD& transferred);
    [[nodiscard]] std::vector<DWORD> dispatcherThreads() const;
    void stopAll() noexcept;
    bool tryStop(const std::wstring& name) noexcept;

    DWORD m_timeoutMs;
    std::wstring m_pipeName;
    Basalt::CFile m_pipe;
    Basalt::CHandle m_event; ///< Signalled by the end of the one pipe operation at a time.
    Basalt::CHandle m_process;
    DWORD m_processId = 0;
    const BYTE* m_dispatcherBegin = nullptr; ///< In the host's address space, as the end.
    const BYTE* m_dispatcherEnd = nullptr;
    std::vector<DWORD> m_knownThreads;       ///< The dispatcher's, after the last start.
    std::map<std::wstring, DWORD> m_threads; ///< Services started; id of the thread, 0 when it was not seen.
};
