#pragma once

#include <windows.h>

/// @file
/// How calls from other processes and the end of this one keep out of each other's way, and how a stop for an
/// update ends it. Logs as a part of the control manager.

/// One call from another process, for its scope. Never a wait: COM's end on the main thread may wait for the
/// call in its turn. Threads: any.
class CForeignCall
{
public:
    CForeignCall() noexcept;
    ~CForeignCall();
    CForeignCall(const CForeignCall&) = delete;
    CForeignCall& operator=(const CForeignCall&) = delete;

    /// False when it comes too late: the process is about to end.
    [[nodiscard]] explicit operator bool() const noexcept { return m_isAdmitted; }

private:
    bool m_isAdmitted;
};

/// For the main thread on its way out, when all services of this process have stopped: a stop may still be
/// under way, with services in other processes or with its answer. Waits until the running calls have
/// returned; later ones, and those that come meanwhile, are not admitted.
void CloseCalls() noexcept;

/// After CloseCalls, before COM ends: gives the answer of a stop a second to reach the updater.
void LetAnswerLeave() noexcept;

/// Starts MyTerminateThread.
/// @param function the caller, for the log.
void BeginForcedStop(const wchar_t* function) noexcept;

/// Thread routine: gives the answer of a stop time to reach the updater, then ends the process with exit code
/// 0. When the main thread has begun to end it (CloseCalls), only after a further time. Does not return.
DWORD WINAPI MyTerminateThread(void* context) noexcept;
