#pragma once

#include <windows.h>

#include "base/Lock.h"
#include "base/Owned.h"
#include "contract/WorkingSetRecord.h"
#include "workingset/TxWorkingSetCallback.h"
#include "workingset/WorkingSetTimer.h"

/// Closing one waits for the callbacks of its timers: never from inside such a callback.
struct TimerQueueTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept
    {
        static_cast<void>(::DeleteTimerQueueEx(value, INVALID_HANDLE_VALUE));
    }
};
using CTimerQueue = Basalt::COwned<TimerQueueTraits>;

/// Closing one waits for its callbacks: never from inside one.
struct RegisteredWaitTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept
    {
        static_cast<void>(::UnregisterWaitEx(value, INVALID_HANDLE_VALUE));
    }
};
using CRegisteredWait = Basalt::COwned<RegisteredWaitTraits>;

/// Gives the trimming algorithm its two triggers and its stop signal: a one-shot timer, armed again after
/// every run at a randomised time, and a named event (WorkingSetEventName) that asks for a trim at once.
///
/// Threads: Initialize, DeInitialize and the destructor belong to one thread, outside of any callback. The
/// timer's and the event's callbacks run on thread-pool threads, at the same time if it so happens, and call
/// scheduleWsTimer. The lock guards the handles; no callback works and nothing waits for one under it.
/// @see https://learn.microsoft.com/windows/win32/sync/timer-queues
/// @see https://learn.microsoft.com/windows/win32/api/winbase/nf-winbase-registerwaitforsingleobject
class CTxSvcHostWorkingSetHandler final : public IWorkingSetTimer
{
public:
    /// A stop event that cannot be made is logged; Initialize then fails.
    /// @throws std::bad_alloc
    CTxSvcHostWorkingSetHandler();
    ~CTxSvcHostWorkingSetHandler();
    CTxSvcHostWorkingSetHandler(const CTxSvcHostWorkingSetHandler&) = delete;
    CTxSvcHostWorkingSetHandler& operator=(const CTxSvcHostWorkingSetHandler&) = delete;

    /// Arms the first timer and listens to the event. Ends first what an earlier call began.
    /// @return false, logged and with everything undone, when the settings are refused or a handle cannot be
    ///         made.
    [[nodiscard]] bool Initialize(const WorkingSetRecord& record) noexcept;

    /// Stops running callbacks at their next wait and blocks until they have ended. Passes over what was
    /// never made, so it may be called at any time. What was learnt stays readable.
    /// @return false, logged, when the callback or the event could not be closed.
    bool DeInitialize() noexcept;

    bool scheduleWsTimer() noexcept override;

    /// Takes the armed timer back, if there is one.
    /// @param waitForCallback true blocks until a callback of this timer that already runs has ended, so not
    ///                        from inside a callback.
    bool cancelWsTimer(bool waitForCallback) noexcept;

    /// True as well when there is no stop event.
    [[nodiscard]] bool IsStopRequested() const noexcept;

    /// Upper edge of the learnt band in bytes; 0 while there is none. Any thread.
    [[nodiscard]] ULONGLONG GetOptimalBucketUpperLimit() noexcept
    {
        return m_callback.GetOptimalBucketUpperLimit();
    }

private:
    static void CALLBACK onTimerOrEvent(void* context, BOOLEAN timerFired) noexcept;

    [[nodiscard]] bool start(const WorkingSetRecord& record) noexcept;
    [[nodiscard]] bool createTimerQueue() noexcept TX_EXCLUDES(m_lock);
    [[nodiscard]] bool registerEventWait() noexcept TX_EXCLUDES(m_lock);
    void unregisterEventWait() noexcept TX_EXCLUDES(m_lock);
    void deleteTimerQueue() noexcept TX_EXCLUDES(m_lock);
    [[nodiscard]] bool armTimer(DWORD dueTimeMs) noexcept TX_REQUIRES(m_lock);
    [[nodiscard]] DWORD randomDueTimeMs() const noexcept;

    Basalt::CHandle m_stopEvent; ///< Manual-reset; made by the constructor, constant afterwards.
    DWORD m_timerBaseMs = 0;     ///< Set by Initialize before the first callback, like the next.
    DWORD m_randomizationRangeMs = 0;
    CTxWorkingSetCallback m_callback; ///< Guards itself.

    Basalt::CLock m_lock;
    bool m_bInitialized TX_GUARDED_BY(m_lock) = false;
    Basalt::CHandle m_wsEvent TX_GUARDED_BY(m_lock); ///< Auto-reset, named.
    CTimerQueue m_timerQueue TX_GUARDED_BY(m_lock);
    HANDLE m_timer TX_GUARDED_BY(m_lock) = nullptr; ///< Belongs to m_timerQueue and goes with it.
    CRegisteredWait m_wait TX_GUARDED_BY(m_lock);
};
