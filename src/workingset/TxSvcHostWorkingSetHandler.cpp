#include "workingset/TxSvcHostWorkingSetHandler.h"

#include <cstdlib>
#include <utility>

#include "contract/WorkingSetEvent.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHostWorkingSetHandler";

/// 1 / RAND_MAX of the Windows runtime.
constexpr double kRandomUnit = 3.051850947599719e-5;

/// Null with the thread's last error set on failure. The name holds the process's id, so an object that is
/// there already was put there by somebody else, who may signal it, or leave it signalled, without end.
HANDLE CreateWorkingSetEvent() noexcept
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    Basalt::CHandle event(::CreateEventW(nullptr, FALSE, FALSE, name.data()));
    if (event && ::GetLastError() == ERROR_ALREADY_EXISTS)
    {
        event.Reset(); // Keeps the last error.
    }
    return event.Release();
}

/// Stays registered after each signal.
bool RegisterWait(HANDLE& wait, HANDLE event, WAITORTIMERCALLBACK callback, void* context) noexcept
{
    return ::RegisterWaitForSingleObject(&wait, event, callback, context, INFINITE, WT_EXECUTEDEFAULT) !=
           FALSE;
}

/// A timer whose callback still runs counts as deleted: it goes when the callback returns.
bool DeleteTimer(HANDLE queue, HANDLE timer, HANDLE completion, DWORD& error) noexcept
{
    if (::DeleteTimerQueueTimer(queue, timer, completion))
    {
        return true;
    }
    error = ::GetLastError();
    return error == ERROR_IO_PENDING;
}

} // namespace

CTxSvcHostWorkingSetHandler::CTxSvcHostWorkingSetHandler()
    : m_stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    if (!m_stopEvent)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError,
            L"CTxSvcHostWorkingSetHandler::CTxSvcHostWorkingSetHandler",
            L"Failed to create the stop event (GLE=0x%08X)",
            error);
    }
}

CTxSvcHostWorkingSetHandler::~CTxSvcHostWorkingSetHandler()
{
    if (m_bInitialized)
    {
        DeInitialize();
    }
    m_wait.Reset(); // Nothing may call back any more when the stop event goes.
    m_timerQueue.Reset();
    const HANDLE stopEvent = m_stopEvent.Release();
    if (stopEvent != nullptr && !::CloseHandle(stopEvent))
    {
        TX_LOG(
            LogError,
            L"CTxSvcHostWorkingSetHandler::~CTxSvcHostWorkingSetHandler",
            L"CloseHandle failed to close the stop event handle");
    }
}

bool CTxSvcHostWorkingSetHandler::Initialize(const WorkingSetRecord& record) noexcept
{
    bool initialized = false;
    {
        const Basalt::CLockGuard guard(m_lock);
        initialized = m_bInitialized;
    }
    if (initialized)
    {
        DeInitialize();
    }
    m_timerBaseMs = record.dwTimerIntervalBase;
    m_randomizationRangeMs = record.dwRandomizationRange;
    ::ResetEvent(m_stopEvent.Get());
    if (!start(record))
    {
        DeInitialize();
        return false;
    }
    const Basalt::CLockGuard guard(m_lock);
    m_bInitialized = true;
    return true;
}

bool CTxSvcHostWorkingSetHandler::start(const WorkingSetRecord& record) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostWorkingSetHandler::Initialize";
    if (!m_callback.init(m_stopEvent.Get(), this, record))
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize working set callback");
        return false;
    }
    if (!createTimerQueue())
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize timer queue");
        return false;
    }
    if (!registerEventWait())
    {
        return false;
    }
    if (!scheduleWsTimer())
    {
        TX_LOG(LogError, kFunction, L"Failed to register the timer callback");
        return false;
    }
    return true;
}

bool CTxSvcHostWorkingSetHandler::createTimerQueue() noexcept
{
    deleteTimerQueue();
    const Basalt::CLockGuard guard(m_lock);
    m_timerQueue.Reset(::CreateTimerQueue());
    return static_cast<bool>(m_timerQueue);
}

bool CTxSvcHostWorkingSetHandler::registerEventWait() noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostWorkingSetHandler::Initialize";
    bool hasEvent = false;
    DWORD eventError = ERROR_SUCCESS;
    HANDLE wait = nullptr;
    {
        const Basalt::CLockGuard guard(m_lock);
        m_wsEvent.Reset(CreateWorkingSetEvent());
        hasEvent = static_cast<bool>(m_wsEvent);
        if (!hasEvent)
        {
            eventError = ::GetLastError();
        }
        else if (!RegisterWait(wait, m_wsEvent.Get(), &onTimerOrEvent, &m_callback))
        {
            wait = nullptr;
        }
        m_wait.Reset(wait);
    }
    if (!hasEvent)
    {
        TX_LOG(LogError, kFunction, L"Failed to create working set event (GLE=0x%08X)", eventError);
    }
    else if (wait == nullptr)
    {
        TX_LOG(LogError, kFunction, L"Failed to register event callback for working set reduction");
    }
    return wait != nullptr;
}

bool CTxSvcHostWorkingSetHandler::scheduleWsTimer() noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostWorkingSetHandler::scheduleWsTimer";
    static constexpr wchar_t kStopped[] = L"The working set handler is stopped";
    if (IsStopRequested())
    {
        TX_LOG(LogWarning, kFunction, kStopped);
        return false;
    }
    cancelWsTimer(false); // Not blocking: the caller may well be the callback of this very timer.
    const DWORD dueTimeMs = randomDueTimeMs();
    if (IsStopRequested())
    {
        TX_LOG(LogNormal, kFunction, kStopped);
        return false;
    }
    bool hasQueue = false;
    bool armed = false;
    {
        const Basalt::CLockGuard guard(m_lock);
        // A stop may have come in since, and null would be the process's default queue, which nobody empties.
        hasQueue = static_cast<bool>(m_timerQueue);
        // A run that overlaps may have armed a timer since. One is enough.
        armed = m_timer != nullptr || (hasQueue && armTimer(dueTimeMs));
    }
    if (!hasQueue)
    {
        TX_LOG(LogNormal, kFunction, kStopped);
    }
    else if (!armed)
    {
        TX_LOG(LogError, kFunction, L"Failed to register the timer callback");
    }
    return armed;
}

bool CTxSvcHostWorkingSetHandler::armTimer(DWORD dueTimeMs) noexcept
{
    HANDLE timer = nullptr;
    if (::CreateTimerQueueTimer(
            &timer, m_timerQueue.Get(), &onTimerOrEvent, &m_callback, dueTimeMs, 0, WT_EXECUTEDEFAULT) ==
        FALSE)
    {
        timer = nullptr;
    }
    m_timer = timer;
    return m_timer != nullptr;
}

/// Base plus a random part of the range, both ends included.
DWORD CTxSvcHostWorkingSetHandler::randomDueTimeMs() const noexcept
{
    // Never seeded: the hosts of one machine are spread by what they run, not by their random numbers.
    const int random = std::rand(); // NOLINT(concurrency-mt-unsafe): Windows keeps the state per thread.
    return m_timerBaseMs +
           static_cast<DWORD>(m_randomizationRangeMs * static_cast<double>(random) * kRandomUnit);
}

bool CTxSvcHostWorkingSetHandler::cancelWsTimer(bool waitForCallback) noexcept
{
    HANDLE queue = nullptr;
    HANDLE timer = nullptr;
    DWORD error = ERROR_SUCCESS;
    bool deleted = true;
    {
        const Basalt::CLockGuard guard(m_lock);
        queue = m_timerQueue.Get();
        timer = std::exchange(m_timer, nullptr);
        if (timer != nullptr && !waitForCallback)
        {
            // This form waits for nothing. Under the lock, because once that is free another thread's
            // DeInitialize may delete the queue and this timer with it.
            deleted = DeleteTimer(queue, timer, nullptr, error);
        }
    }
    if (timer != nullptr && waitForCallback)
    {
        deleted = DeleteTimer(queue, timer, INVALID_HANDLE_VALUE, error);
    }
    if (!deleted)
    {
        TX_LOG(
            LogWarning,
            L"CTxSvcHostWorkingSetHandler::cancelWsTimer",
            L"Failed to un-register the callback (GLE=0x%08X)",
            error);
    }
    return deleted;
}

bool CTxSvcHostWorkingSetHandler::IsStopRequested() const noexcept
{
    return !m_stopEvent || ::WaitForSingleObject(m_stopEvent.Get(), 0) == WAIT_OBJECT_0;
}

bool CTxSvcHostWorkingSetHandler::DeInitialize() noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostWorkingSetHandler::DeInitialize";
    ::SetEvent(m_stopEvent.Get());
    TX_LOG(LogNormal, kFunction, L"Working set handler de-initializing");
    unregisterEventWait();
    deleteTimerQueue();

    bool callbackEnded = false;
    bool eventClosed = true;
    {
        const Basalt::CLockGuard guard(m_lock);
        ::Sleep(1); // Gives way to a pool thread that is just about to return.
        callbackEnded = m_callback.deInit();
        const HANDLE wsEvent = m_wsEvent.Release();
        eventClosed = wsEvent == nullptr || ::CloseHandle(wsEvent);
        m_bInitialized = false;
    }
    if (!callbackEnded)
    {
        TX_LOG(LogError, kFunction, L"Failed to de-initialize the working set call back object");
    }
    if (!eventClosed)
    {
        TX_LOG(LogError, kFunction, L"CloseHandle failed to close the working set event handle");
    }
    return callbackEnded && eventClosed;
}

/// Blocks until a running event callback has ended.
void CTxSvcHostWorkingSetHandler::unregisterEventWait() noexcept
{
    HANDLE wait = nullptr;
    {
        const Basalt::CLockGuard guard(m_lock);
        wait = m_wait.Release();
    }
    if (wait != nullptr && !::UnregisterWaitEx(wait, INVALID_HANDLE_VALUE))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogWarning,
            L"CTxSvcHostWorkingSetHandler::DeInitialize",
            L"Failed to unregister wait (GLE=0x%08X)",
            error);
    }
}

/// Blocks until running timer callbacks have ended.
void CTxSvcHostWorkingSetHandler::deleteTimerQueue() noexcept
{
    HANDLE queue = nullptr;
    {
        // Withdrawn first: a callback that runs on finds no queue to arm a timer on, and no timer to delete.
        const Basalt::CLockGuard guard(m_lock);
        queue = m_timerQueue.Release();
        m_timer = nullptr;
    }
    if (queue != nullptr && !::DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogWarning,
            L"CTxSvcHostWorkingSetHandler::DeInitialize",
            L"Failed to delete the timer queue (GLE=0x%08X)",
            error);
    }
}

void CALLBACK CTxSvcHostWorkingSetHandler::onTimerOrEvent(void* context, BOOLEAN timerFired) noexcept
{
    static_cast<CTxWorkingSetCallback*>(context)->OnCallback(timerFired);
}
