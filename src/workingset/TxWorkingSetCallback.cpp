#include "workingset/TxWorkingSetCallback.h"

#include <psapi.h>

#include <climits>
#include <new>

#include "logging/Log.h"
#include "workingset/ProcessCpuUsage.h"
#include "workingset/WorkingSetTimer.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxWorkingSetCallback";

constexpr wchar_t kNoMemory[] = L"Out of memory, the recorded samples are dropped";

/// The texts print sizes with "%d": their low 32 bits, negative from 2 GB on.
DWORD ForLog(ULONGLONG size) noexcept
{
    return static_cast<DWORD>(size);
}

} // namespace

/// Routine progress is logged only on request.
#define TX_LOG_PROGRESS(function, ...)                                                                       \
    do                                                                                                       \
    {                                                                                                        \
        if (m_dwLoggingEnabled != 0)                                                                         \
        {                                                                                                    \
            TX_LOG(LogNormal, function, __VA_ARGS__);                                                        \
        }                                                                                                    \
    } while (false)

bool CTxWorkingSetCallback::init(
    HANDLE stopEvent, IWorkingSetTimer* pHandler, const WorkingSetRecord& record) noexcept
{
    m_hStopEvent = stopEvent;
    m_pHandler = pHandler;
    m_dwLoggingEnabled = record.dwLoggingEnabled;
    m_dwCpuUsageLimit = record.dwCpuUsageLimit;
    m_dwCpuUsageDuration = record.dwCpuUsageDuration;
    m_wsLimitFactor = record.dwLimitFactor;
    m_dwOptimalOccuranceCount = record.dwOptimalOccuranceCount;
    m_processIdleWaitTime = record.dwProcessIdleWaitTime;
    constexpr wchar_t kFunction[] = L"CTxWorkingSetCallback::init";
    try
    {
        setBucketRange(record.dwBucketRange);
    }
    catch (const std::bad_alloc&)
    {
        TX_LOG(LogError, kFunction, kNoMemory);
        dropSamples();
    }
    if (m_dwWsBucketRange == 0)
    {
        TX_LOG(LogWarning, kFunction, L"m_dwWsBucketRange invalid (%d)", m_dwWsBucketRange);
        return false;
    }
    if (m_wsLimitFactor ==
        0) // The configuration allows it: the way to switch working-set reduction off here.
    {
        TX_LOG(LogWarning, kFunction, L"m_wsLimitFactor invalid (%d)", m_wsLimitFactor);
        return false;
    }
    if (m_dwOptimalOccuranceCount == 0)
    {
        TX_LOG(LogWarning, kFunction, L"m_dwOptimalOccuranceCount invalid (%d)", m_dwOptimalOccuranceCount);
        return false;
    }
    if (m_processIdleWaitTime == 0)
    {
        TX_LOG(LogWarning, kFunction, L"m_processIdleWaitTime invalid (%d)", m_processIdleWaitTime);
        return false;
    }

    const DWORD upperLimit = record.stOptimalBucketUpperLimit;
    const Basalt::CLockGuard guard(m_lock);
    m_wsOptimalBucket =
        upperLimit >= m_dwWsBucketRange ? Band(upperLimit - m_dwWsBucketRange, upperLimit) : Band();
    m_bOptimalBucketKnown = m_wsOptimalBucket.second != 0;
    return true;
}

bool CTxWorkingSetCallback::OnCallback(bool timerFired) noexcept
{
    if (m_hStopEvent == nullptr)
    {
        TX_LOG(LogWarning, L"CTxWorkingSetCallback::OnCallback", L"OnCallback called without initializing");
    }
    return timerFired ? onWsTimer() : onWsEventTrigger();
}

ULONGLONG CTxWorkingSetCallback::GetOptimalBucketUpperLimit() noexcept
{
    const Basalt::CLockGuard guard(m_lock);
    return m_wsOptimalBucket.second;
}

bool CTxWorkingSetCallback::onWsTimer() noexcept
{
    constexpr wchar_t kFunction[] = L"CTxWorkingSetCallback::onWsTimer";
    TX_LOG_PROGRESS(kFunction, L"Working set event triggered (timer)");
    bool known = false;
    {
        const Basalt::CLockGuard guard(m_lock);
        known = m_bOptimalBucketKnown;
    }
    if (known)
    {
        TX_LOG_PROGRESS(kFunction, L"Regular run.");
        return handleRegularRun();
    }
    TX_LOG_PROGRESS(kFunction, L"Initial sampling.");
    return handleInitialSampling();
}

bool CTxWorkingSetCallback::onWsEventTrigger() noexcept
{
    TX_LOG_PROGRESS(L"CTxWorkingSetCallback::onWsEventTrigger", L"Working set event triggered");
    // However often it is signalled, one run measures at a time: its trim answers the signals meanwhile too.
    if (m_bEventMeasured.exchange(true))
    {
        return true;
    }
    const bool isIdle = isCpuUsageBelowLimit();
    m_bEventMeasured = false;
    if (!isIdle)
    {
        return true; // A busy process is left alone; the timer that is armed comes anyway.
    }
    exchangeSampleAfterTrim(true);
    if (isStopRequested())
    {
        return false;
    }
    limitWorkingSet();
    return !isStopRequested() && reschedule();
}

/// Every run trims. The first one only starts the cycle; each later one records how far the process grew
/// since.
bool CTxWorkingSetCallback::handleInitialSampling() noexcept
{
    if (!waitForIdle())
    {
        return false;
    }
    const ULONGLONG workingSet = getCurrentWorkingSet();
    if (workingSet == 0)
    {
        TX_LOG(LogError, L"CTxWorkingSetCallback::handleInitialSampling", L"The current working set is 0");
        return false;
    }
    limitWorkingSet();
    if (!exchangeSampleAfterTrim(true))
    {
        return reschedule();
    }
    const bool recorded = addSample(workingSet);
    const Basalt::CLockGuard guard(m_lock);
    m_bOptimalBucketKnown = m_bOptimalBucketKnown || m_wsOptimalBucket.second != 0;
    return recorded;
}

bool CTxWorkingSetCallback::handleRegularRun() noexcept
{
    constexpr wchar_t kFunction[] = L"CTxWorkingSetCallback::handleRegularRun";
    const ULONGLONG workingSet = getCurrentWorkingSet();
    if (workingSet == 0)
    {
        TX_LOG(LogError, kFunction, L"The current working set is 0");
        return false;
    }
    Band band;
    {
        const Basalt::CLockGuard guard(m_lock);
        band = m_wsOptimalBucket;
    }
    if (workingSet < band.first)
    {
        TX_LOG_PROGRESS(
            kFunction, L"Current working set is lower than the range, Current WS=%d", ForLog(workingSet));
        return addSample(workingSet);
    }
    if (workingSet <= ceilingOf(band))
    {
        TX_LOG_PROGRESS(kFunction, L"Current working set is within range, Current WS=%d", ForLog(workingSet));
        return exchangeSampleAfterTrim(false) ? addSample(workingSet) : reschedule();
    }
    if (!waitForIdle())
    {
        return false;
    }
    limitWorkingSet();
    return exchangeSampleAfterTrim(true) ? addSample(workingSet) : reschedule();
}

/// Upper edge plus the limit factor's share of it, as far as 64 bits go.
ULONGLONG CTxWorkingSetCallback::ceilingOf(const Band& band) const noexcept
{
    const double share = (m_wsLimitFactor * 0.01) * static_cast<double>(band.second);
    const ULONGLONG room = ULLONG_MAX - band.second;
    return share < static_cast<double>(room) ? band.second + static_cast<ULONGLONG>(share) : ULLONG_MAX;
}

/// Blocks until the process uses little of the processors; false when stop is requested or a wait fails.
bool CTxWorkingSetCallback::waitForIdle() const noexcept
{
    while (!isCpuUsageBelowLimit())
    {
        if (::WaitForSingleObject(m_hStopEvent, m_processIdleWaitTime) != WAIT_TIMEOUT)
        {
            return false;
        }
    }
    return true;
}

bool CTxWorkingSetCallback::isCpuUsageBelowLimit() const noexcept
{
    constexpr wchar_t kFunction[] = L"CTxWorkingSetCallback::isCpuUsageBelowLimit";
    float usage = 0;
    if (!GetProcessCpuUsage(::GetCurrentProcess(), m_dwCpuUsageDuration, m_hStopEvent, usage))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"GetProcessCpuUsage failed (GLE=0x%08X)", error);
        return false;
    }
    if (usage > static_cast<float>(m_dwCpuUsageLimit))
    {
        TX_LOG_PROGRESS(kFunction, L"CPU Usage is above limit (>%d)", m_dwCpuUsageLimit);
        return false;
    }
    return true;
}

bool CTxWorkingSetCallback::isStopRequested() const noexcept
{
    return ::WaitForSingleObject(m_hStopEvent, 0) == WAIT_OBJECT_0;
}

/// In bytes; 0, logged, when it cannot be read.
ULONGLONG CTxWorkingSetCallback::getCurrentWorkingSet() const noexcept
{
    PROCESS_MEMORY_COUNTERS counters{};
    if (!::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters)))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError,
            L"CTxWorkingSetCallback::getCurrentWorkingSet",
            L"Failed to get the process working set (GLE=0x%08X)",
            error);
        return 0;
    }
    return counters.WorkingSetSize;
}

bool CTxWorkingSetCallback::limitWorkingSet() const noexcept
{
    constexpr wchar_t kFunction[] = L"CTxWorkingSetCallback::limitWorkingSet";
    constexpr auto kEmpty = static_cast<SIZE_T>(-1); // For both limits: takes out every page that it can.
    if (!::SetProcessWorkingSetSize(::GetCurrentProcess(), kEmpty, kEmpty))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"Failed to set the process working set (GLE=0x%08X)", error);
        return false;
    }
    TX_LOG_PROGRESS(kFunction, L"Process working set adjusted successfully");
    return true;
}

bool CTxWorkingSetCallback::reschedule() const noexcept
{
    return m_pHandler != nullptr && m_pHandler->scheduleWsTimer();
}

bool CTxWorkingSetCallback::exchangeSampleAfterTrim(bool value) noexcept
{
    const Basalt::CLockGuard guard(m_lock);
    return std::exchange(m_bSampleAfterTrim, value);
}

bool CTxWorkingSetCallback::addSample(ULONGLONG workingSet) noexcept
{
    Band decided;
    try
    {
        decided = takeSample(workingSet);
    }
    catch (const std::bad_alloc&)
    {
        TX_LOG(LogError, L"CTxWorkingSetCallback::addSample", kNoMemory);
        dropSamples();
    }
    if (decided.second != 0)
    {
        TX_LOG_PROGRESS(
            L"CTxWorkingSetCallback::getOptimalBucket",
            L"New optimal bucket decided, m_wsOptimalBucket.first=%d, m_wsOptimalBucket.second=%d",
            ForLog(decided.first),
            ForLog(decided.second));
    }
    return !isStopRequested() && reschedule();
}

CTxWorkingSetCallback::Band CTxWorkingSetCallback::takeSample(ULONGLONG workingSet)
{
    const Basalt::CLockGuard guard(m_lock);
    m_wsSamples.push_back(workingSet);
    if (m_dwWsBucketRange != 0)
    {
        m_histogram.Add(workingSet / m_dwWsBucketRange);
    }
    const Band candidate = getOptimalBucket();
    if (candidate.second != 0)
    {
        m_wsSamples.clear();
        m_histogram.Clear();
        m_wsOptimalBucket = candidate;
    }
    return candidate;
}

/// Without samples, or with fewer than the count, the histogram holds no such bucket.
CTxWorkingSetCallback::Band CTxWorkingSetCallback::getOptimalBucket() const noexcept
{
    const std::optional<ULONGLONG> bucket = m_histogram.FirstReaching(m_dwOptimalOccuranceCount);
    if (!bucket)
    {
        return {};
    }
    const ULONGLONG lower = *bucket * m_dwWsBucketRange;
    return {lower, lower + m_dwWsBucketRange};
}

void CTxWorkingSetCallback::setBucketRange(DWORD range)
{
    m_dwWsBucketRange = range;
    const Basalt::CLockGuard guard(m_lock);
    m_histogram.Clear();
    for (const ULONGLONG sample : m_wsSamples)
    {
        if (range != 0)
        {
            m_histogram.Add(sample / range);
        }
    }
}

void CTxWorkingSetCallback::dropSamples() noexcept
{
    const Basalt::CLockGuard guard(m_lock);
    m_wsSamples.clear();
    m_histogram.Clear();
}
