#pragma once

#include <windows.h>

#include <atomic>
#include <utility>
#include <vector>

#include "base/Lock.h"
#include "contract/WorkingSetRecord.h"
#include "workingset/BucketHistogram.h"

class IWorkingSetTimer;

/// Decides when the process empties its working set, and learns from the sizes it grows to between trims
/// which band of sizes it keeps coming back to: the optimal bucket. While none is known every timer run trims
/// ("initial sampling"); afterwards only a size beyond the band by more than the limit factor does ("regular
/// run").
///
/// Threads: init comes before the first callback. OnCallback runs on thread-pool threads, and runs may
/// overlap: a signalled event starts one beside a timer run that measures or waits, and the timer that such a
/// run arms may fire while an earlier one still waits. Nothing serialises them: each acts on the state as it
/// finds it, so two runs may both trim, and a sample goes to whichever run first finds its mark set. The lock
/// keeps the state whole (a list that grows in two threads at once is a crash), no more: it is held for
/// single steps, never over a wait, a Win32 call, a log call or the handler.
///
/// Cancellation: every wait in a run waits on the stop event too, so a stop request ends the run at its next
/// wait. A run that ends with false has not armed the timer again.
class CTxWorkingSetCallback
{
public:
    /// @throws std::bad_alloc
    CTxWorkingSetCallback() = default;
    CTxWorkingSetCallback(const CTxWorkingSetCallback&) = delete;
    CTxWorkingSetCallback& operator=(const CTxWorkingSetCallback&) = delete;

    /// Takes the settings and starts with the band that an earlier process learnt, if there is one. Samples
    /// that are there from before stay.
    /// @param stopEvent borrowed; signalled means stop.
    /// @param pHandler  borrowed; arms the timer again after a run. Null: nothing does.
    /// @return false, logged, when the bucket range, the limit factor, the occurrence count or the idle wait
    ///         is 0: nothing may then be called.
    [[nodiscard]] bool init(
        HANDLE stopEvent, IWorkingSetTimer* pHandler, const WorkingSetRecord& record) noexcept;

    /// There is nothing to release, so this always succeeds.
    bool deInit() noexcept { return true; }

    /// One run: by the timer, or by the working-set event.
    /// @return false when the run ended early; nobody needs to act on it.
    bool OnCallback(bool timerFired) noexcept;

    /// Upper edge of the optimal bucket in bytes; 0 while none is known. Any thread.
    [[nodiscard]] ULONGLONG GetOptimalBucketUpperLimit() noexcept TX_EXCLUDES(m_lock);

private:
    using Band = std::pair<ULONGLONG, ULONGLONG>; ///< Lower and upper edge in bytes; (0, 0) is none.

    bool onWsTimer() noexcept;
    bool onWsEventTrigger() noexcept;
    bool handleInitialSampling() noexcept;
    bool handleRegularRun() noexcept;

    [[nodiscard]] bool waitForIdle() const noexcept;
    [[nodiscard]] bool isCpuUsageBelowLimit() const noexcept;
    [[nodiscard]] bool isStopRequested() const noexcept;
    [[nodiscard]] ULONGLONG getCurrentWorkingSet() const noexcept;
    bool limitWorkingSet() const noexcept;
    bool reschedule() const noexcept;

    [[nodiscard]] ULONGLONG ceilingOf(const Band& band) const noexcept;
    /// Sets the mark and tells what it was.
    bool exchangeSampleAfterTrim(bool value) noexcept TX_EXCLUDES(m_lock);
    bool addSample(ULONGLONG workingSet) noexcept TX_EXCLUDES(m_lock);
    /// The new optimal bucket, or none when the sample leaves it as it is.
    [[nodiscard]] Band takeSample(ULONGLONG workingSet) TX_EXCLUDES(m_lock);
    [[nodiscard]] Band getOptimalBucket() const noexcept TX_REQUIRES(m_lock);
    void setBucketRange(DWORD range) TX_EXCLUDES(m_lock);
    void dropSamples() noexcept TX_EXCLUDES(m_lock);

    // Set by init while no callback runs, only read afterwards: these need no lock.
    HANDLE m_hStopEvent = nullptr;
    IWorkingSetTimer* m_pHandler = nullptr;
    DWORD m_dwLoggingEnabled = 0;
    DWORD m_dwCpuUsageLimit = 5;       ///< percent
    DWORD m_dwCpuUsageDuration = 5000; ///< ms
    DWORD m_wsLimitFactor = 0;         ///< percent
    DWORD m_dwWsBucketRange = 0;       ///< bytes
    DWORD m_dwOptimalOccuranceCount = 0;
    DWORD m_processIdleWaitTime = 0; ///< ms

    std::atomic<bool> m_bEventMeasured = false; ///< A run by the event measures the CPU usage.

    Basalt::CLock m_lock;
    bool m_bOptimalBucketKnown TX_GUARDED_BY(m_lock) = true;
    /// Set by every trim: the size that the process grows to afterwards is worth recording.
    bool m_bSampleAfterTrim TX_GUARDED_BY(m_lock) = false;
    Band m_wsOptimalBucket TX_GUARDED_BY(m_lock);
    /// Sizes recorded since the last new optimum, in bytes. Between two optima no bucket holds as many as the
    /// occurrence count, so their number is bounded by that and by the number of buckets the process reaches.
    std::vector<ULONGLONG> m_wsSamples TX_GUARDED_BY(m_lock);
    /// Over m_wsSamples, kept beside them: it comes out the same as one built afresh for every sample.
    CBucketHistogram m_histogram TX_GUARDED_BY(m_lock);
};
