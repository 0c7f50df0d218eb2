#include "workingset/TxWorkingSetCallback.h"

#include <psapi.h>

#include <bit>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>

#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/NoMemory.h"
#include "workingset/WorkingSetTimer.h"

namespace
{

constexpr ULONGLONG kMb = 1ULL << 20, kStored = 20 * kMb, kWithin = 17 * kMb, kAbove = 50 * kMb;
constexpr DWORD kMeasureMs = 5000, kIdleMs = 60000;
constexpr LONGLONG kTicks = kMeasureMs * 10000LL, kLimit = 4 * kTicks / 20, kBusy = 2 * kLimit;

/// A run, the machine that it finds, and what it does.
struct Step
{
    std::optional<WorkingSetRecord> start; ///< With new settings.
    char trigger; ///< T timer, E event; t: timer, after an init that forgets nothing; i, m: without memory
                  ///< for the init, for the run.
    ULONGLONG workingSet; ///< 0: cannot be read.
    /// "ws" the size is read, "cpu" usage measured, "idle" waited for less, "trim", "arm".
    std::string trace;
    ULONGLONG limitAfter;
    bool result = true;
    std::string stopAt = {}; ///< Stop is requested while this is asked for ("info": after measuring).
    LONGLONG usedTicks = 0;  ///< Of the next measurement; then none.
    LONGLONG elapsedTicks = kTicks;
    bool works = true; ///< Trimming and arming.
};

const HANDLE s_stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);

Step s_step;
std::string s_trace;
bool s_isStopped;
CTxWorkingSetCallback* s_signalled;               ///< By the event, once, while usage is measured.
LONGLONG s_now = 0xFFFFFFFF, s_used = 0xFFFFFFFF; ///< Every interval carries into a FILETIME's upper half.

BOOL Note(const char* token)
{
    const CNoMemory::CExempt exempt;
    s_trace += s_trace.empty() ? token : std::string(" ") + token;
    s_isStopped = s_isStopped || s_step.stopAt == token;
    ::SetLastError(ERROR_ACCESS_DENIED);
    return s_step.works;
}

struct WorkingSetCallbackTest : ::testing::Test, IWorkingSetTimer
{
    bool scheduleWsTimer() noexcept override { return Note("arm") != FALSE; }

    static DWORD WINAPI Wait(HANDLE object, DWORD ms)
    {
        if (object != s_stopEvent)
        {
            return RealFunction<decltype(::WaitForSingleObject)>("WaitForSingleObject")(object, ms);
        }
        ms == 0 ? FALSE : Note(ms == kMeasureMs ? "cpu" : ms == kIdleMs ? "idle" : "stray");
        if (ms == kMeasureMs && !s_isStopped)
        {
            CTxWorkingSetCallback* const again = std::exchange(s_signalled, nullptr);
            EXPECT_TRUE(again == nullptr || again->OnCallback(false));
            s_now += s_step.elapsedTicks;
            s_used += std::exchange(s_step.usedTicks, 0);
        }
        return s_isStopped ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }
    static BOOL WINAPI ReadSize(HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD)
    {
        Note("ws");
        counters->WorkingSetSize = s_step.workingSet == 0 ? 1 : s_step.workingSet;
        return s_step.workingSet != 0;
    }
    static BOOL WINAPI Trim(HANDLE, SIZE_T least, SIZE_T most)
    {
        return Note((least & most) == ~SIZE_T{0} ? "trim" : "stray");
    }
    static BOOL WINAPI ReadTimes(HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user)
    {
        *kernel = std::bit_cast<FILETIME>(s_used / 3);
        *user = std::bit_cast<FILETIME>(s_used - s_used / 3);
        return TRUE;
    }
    static void WINAPI ReadSystem(SYSTEM_INFO* info)
    {
        info->dwNumberOfProcessors = 4;
        s_isStopped = s_isStopped || s_step.stopAt == "info";
    }

    void Play(const Step& step)
    {
        SCOPED_TRACE(testing::Message() << step.trigger << ' ' << step.workingSet << ' ' << step.trace);
        s_step = step;
        s_trace.clear();
        s_isStopped = false;
        step.start&& step.trigger == 'T' ? void(m_callback.emplace()) : void();
        {
            const CNoMemory noMemory(step.trigger == 'i' ? 0 : -1);
            ASSERT_TRUE(!step.start || m_callback->init(s_stopEvent, this, *step.start));
        }
        {
            const CNoMemory noMemory(step.trigger == 'm' ? 0 : -1);
            EXPECT_EQ(m_callback->OnCallback(step.trigger != 'E'), step.result);
        }
        EXPECT_EQ(s_trace, step.trace);
        EXPECT_EQ(m_callback->GetOptimalBucketUpperLimit(), step.limitAfter);
    }

    CFakeTrace m_log;
    std::optional<CTxWorkingSetCallback> m_callback{std::in_place};
    CImportPatch m_patches[6] = {
        {"K32GetProcessMemoryInfo", &ReadSize},
        {"SetProcessWorkingSetSize", &Trim},
        {"GetSystemTimeAsFileTime", +[](FILETIME* now) { *now = std::bit_cast<FILETIME>(s_now); }},
        {"GetProcessTimes", &ReadTimes},
        {"GetSystemInfo", &ReadSystem},
        {"WaitForSingleObject", &Wait}};
};

WorkingSetRecord Settings(DWORD count, DWORD stored = kStored, DWORD factor = 30, DWORD range = 5 * kMb)
{
    return {1, 0, 5, kMeasureMs, 0, 0, factor, stored, range, count, kIdleMs};
}

TEST_F(WorkingSetCallbackTest, RunsTrimAndLearnTheBand)
{
    for (const Step& step : std::initializer_list<Step>{
             {Settings(3, 5 * kMb - 1), 'T', 12 * kMb, "cpu ws trim arm", 0}, // Only starts the cycle.
             {{}, 'T', 12 * kMb, "cpu ws trim arm", 0},
             {{}, 'E', 0, "cpu trim arm", 0}, // Records nothing.
             {{}, 'T', 13 * kMb, "cpu ws trim arm", 0},
             {{}, 'T', 25 * kMb / 2, "cpu ws trim arm", 15 * kMb},
             {{}, 'T', 20447232, "ws arm", 15 * kMb}, // Regular from here on; the ceiling is within range.
             {{}, 'T', 20447233, "ws cpu trim arm", 15 * kMb},
             // With an occurrence count of 1 every recorded sample shows at once, as the new band.
             {Settings(1, 22 * kMb), 'T', 17 * kMb, "ws arm", 22 * kMb}, // The lower edge is within range.
             {{}, 'T', 17 * kMb - 1, "ws arm", 20 * kMb},      // Below it is always recorded: the band moves.
             {{}, 'T', 27 * kMb, "ws cpu trim arm", 20 * kMb}, // Trimmed, the first time not recorded.
             {{}, 'T', 16 * kMb, "ws arm", 20 * kMb},          // Recorded, and the mark is gone:
             {{}, 'T', 21 * kMb, "ws arm", 20 * kMb},
             {{}, 'E', 0, "cpu trim arm", 20 * kMb},
             {{}, 'T', 22 * kMb, "ws arm", 25 * kMb},
             {{}, 'E', 0, "cpu trim arm", 25 * kMb},
             {{}, 'T', 101 * kMb, "ws cpu trim arm", 105 * kMb}, // The size before the trim; mark kept.
             {{}, 'T', 106 * kMb, "ws arm", 110 * kMb},
             // Samples outlive new settings, and are counted anew when the bucket range changes.
             {Settings(2, 0), 'T', 1, "cpu ws trim arm", 0},
             {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
             {Settings(2, 0, 30, 20 * kMb), 't', 11 * kMb, "cpu ws trim arm", 20 * kMb},
             {Settings(9), 'T', 0, "ws", kStored, false},
             // Without memory they are dropped.
             {Settings(2, 0), 'T', 1, "cpu ws trim arm", 0},
             {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
             {{}, 'm', 6 * kMb, "cpu ws trim arm", 0},
             {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
             {Settings(9, 0), 't', 7 * kMb, "cpu ws trim arm", 0},
             {Settings(2, 0, 30, kMb), 'i', 6 * kMb, "cpu ws trim arm", 0},
             {{}, 'T', 6 * kMb, "cpu ws trim arm", 7 * kMb},
             // The ceiling is exact. 0.29 has no exact form: 28.999999999999996 is truncated.
             {Settings(1, 100, 29, 100), 'T', 128, "ws arm", 100},
             {{}, 'T', 129, "ws cpu trim arm", 100},
             {Settings(1, 0xFFFFFFFF, 200, 0x80000000), 'T', 12884901885, "ws arm", 0xFFFFFFFF},
             {{}, 'T', 12884901886, "ws cpu trim arm", 0xFFFFFFFF}})
    {
        Play(step);
    }
    EXPECT_EQ(
        m_log.Take(),
        R"(4 CTxWorkingSetCallback::getCurrentWorkingSet: Failed to get the process working set (GLE=0x00000005)
4 CTxWorkingSetCallback::handleRegularRun: The current working set is 0
4 CTxWorkingSetCallback::addSample: Out of memory, the recorded samples are dropped
4 CTxWorkingSetCallback::init: Out of memory, the recorded samples are dropped
)");
}

TEST_F(WorkingSetCallbackTest, BusyProcessesWaitAndRunsEndEarlyWithoutArmingTheTimer)
{
    const WorkingSetRecord known = Settings(9), unknown = Settings(9, 0);
    for (const Step& step : std::initializer_list<Step>{
             {unknown, 'T', kAbove, "cpu idle", 0, false, "idle", kBusy},
             {unknown, 'T', kAbove, "cpu idle cpu ws trim arm", 0, true, "", kBusy},
             {unknown, 'T', 0, "cpu ws", 0, false},
             {known, 'T', kMb, "ws", kStored, false, "ws"},
             {known, 'T', kWithin, "ws arm", kStored, false, "", 0, kTicks, false},
             {known, 'T', kAbove, "ws cpu idle", kStored, false, "cpu"},
             {known, 'E', 0, "cpu trim arm", kStored, true, "", kLimit},
             {known, 'E', 0, "cpu", kStored, true, "", kLimit + 99}, // Left alone.
             {known, 'E', 0, "cpu", kStored, true, "", 0, -1},       // Time runs backwards.
             {known, 'E', 0, "cpu trim arm", kStored, false, "", 0, kTicks, false},
             {known, 'E', 0, "cpu", kStored, false, "info"},
             {known, 'E', 0, "cpu trim", kStored, false, "trim"}})
    {
        Play(step);
    }
    s_signalled = &*m_callback; // While a run by the event measures; its trim is the answer.
    Play({{}, 'E', 0, "cpu trim arm", kStored});
    EXPECT_EQ(
        m_log.Take(),
        R"(4 CTxWorkingSetCallback::getCurrentWorkingSet: Failed to get the process working set (GLE=0x00000005)
4 CTxWorkingSetCallback::handleInitialSampling: The current working set is 0
4 CTxWorkingSetCallback::isCpuUsageBelowLimit: GetProcessCpuUsage failed (GLE=0x000003E3)
4 CTxWorkingSetCallback::isCpuUsageBelowLimit: GetProcessCpuUsage failed (GLE=0x0000000D)
4 CTxWorkingSetCallback::limitWorkingSet: Failed to set the process working set (GLE=0x00000005)
)");
}

TEST_F(WorkingSetCallbackTest, ProgressIsLoggedOnRequest)
{
    WorkingSetRecord record = Settings(1, 0xC0000000);
    record.dwLoggingEnabled = 1;
    Play({record, 'E', 0, "cpu", 0xC0000000, true, "", kBusy});
    Play({{}, 'T', 3221225472, "ws arm", 0xC0000000});
    Play({{}, 'T', kMb, "ws arm", 5 * kMb});
    EXPECT_EQ(m_log.Take(), R"(1 CTxWorkingSetCallback::onWsEventTrigger: Working set event triggered
1 CTxWorkingSetCallback::isCpuUsageBelowLimit: CPU Usage is above limit (>5)
1 CTxWorkingSetCallback::onWsTimer: Working set event triggered (timer)
1 CTxWorkingSetCallback::onWsTimer: Regular run.
1 CTxWorkingSetCallback::handleRegularRun: Current working set is within range, Current WS=-1073741824
1 CTxWorkingSetCallback::onWsTimer: Working set event triggered (timer)
1 CTxWorkingSetCallback::onWsTimer: Regular run.
1 CTxWorkingSetCallback::handleRegularRun: Current working set is lower than the range, Current WS=1048576
1 CTxWorkingSetCallback::getOptimalBucket: New optimal bucket decided, m_wsOptimalBucket.first=0, m_wsOptimalBucket.second=5242880
)");
}

} // namespace
