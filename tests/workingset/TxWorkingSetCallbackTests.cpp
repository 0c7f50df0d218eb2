#include "workingset/TxWorkingSetCallback.h"

#include <psapi.h>

#include <atomic>
#include <cmath>
#include <deque>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>

#include "base/Owned.h"
#include "base/SystemLibrary.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "workingset/ProcessCpuUsage.h"
#include "workingset/WorkingSetTimer.h"

using namespace ETWLogging;

namespace
{

constexpr ULONGLONG kMb = 1024 * 1024;
constexpr DWORD kMeasureMs = 5000;
constexpr DWORD kIdleMs = 60000;
constexpr LONGLONG kMeasureTicks = kMeasureMs * 10000LL;

/// The machine as the algorithm sees it. What it is asked for is written to trace: "ws" the size is read,
/// "cpu" usage is measured, "idle" a wait for less usage, "trim", "arm" the timer.
struct Machine
{
    std::string trace;
    std::string stopAt; ///< Stop is requested while this is asked for ("info": after a measurement).
    bool stopped = false;
    ULONGLONG workingSet = 0;       ///< 0: cannot be read.
    std::deque<LONGLONG> usedTicks; ///< Of the next measurements; then none.
    LONGLONG elapsedTicks = kMeasureTicks;
    DWORD processors = 4;
    int readsUntilFailure = -1; ///< Of the process times; negative: never.
    bool trims = true;
    bool arms = true;
    LONGLONG now = 0xFFFFFFFF; // Every interval carries into the upper half of a FILETIME.
    LONGLONG used = 0xFFFFFFFF;
    HANDLE stopEvent = nullptr;

    void Note(const char* token)
    {
        trace += trace.empty() ? token : std::string(" ") + token;
        stopped = stopped || stopAt == token;
    }
    void Measure()
    {
        now += elapsedTicks;
        if (!usedTicks.empty())
        {
            used += usedTicks.front();
            usedTicks.pop_front();
        }
    }
};
Machine s_machine;

FILETIME ToFileTime(LONGLONG time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}
BOOL WINAPI FakeMemoryInfo(HANDLE process, PROCESS_MEMORY_COUNTERS* counters, DWORD size)
{
    s_machine.Note(process == ::GetCurrentProcess() && size == 72 ? "ws" : "stray");
    counters->WorkingSetSize = s_machine.workingSet;
    ::SetLastError(ERROR_ACCESS_DENIED);
    return s_machine.workingSet != 0;
}
BOOL WINAPI FakeSetWorkingSet(HANDLE process, SIZE_T minimum, SIZE_T maximum)
{
    const bool empties = process == ::GetCurrentProcess() && minimum == ~SIZE_T{0} && maximum == ~SIZE_T{0};
    s_machine.Note(empties ? "trim" : "stray");
    ::SetLastError(ERROR_PRIVILEGE_NOT_HELD);
    return s_machine.trims;
}
void WINAPI FakeSystemTime(FILETIME* now)
{
    *now = ToFileTime(s_machine.now);
}
BOOL WINAPI FakeProcessTimes(HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user)
{
    *kernel = ToFileTime(s_machine.used / 3);
    *user = ToFileTime(s_machine.used - s_machine.used / 3);
    ::SetLastError(ERROR_ACCESS_DENIED);
    return s_machine.readsUntilFailure-- != 0;
}
void WINAPI FakeSystemInfo(SYSTEM_INFO* info)
{
    info->dwNumberOfProcessors = s_machine.processors;
    s_machine.stopped = s_machine.stopped || s_machine.stopAt == "info";
}
DWORD WINAPI FakeWait(HANDLE object, DWORD timeoutMs)
{
    static auto* const real = Basalt::FindExport<decltype(::WaitForSingleObject)>(
        ::GetModuleHandleW(L"kernel32.dll"), "WaitForSingleObject");
    if (object != s_machine.stopEvent)
    {
        return real(object, timeoutMs);
    }
    if (timeoutMs != 0)
    {
        s_machine.Note(timeoutMs == kMeasureMs ? "cpu" : timeoutMs == kIdleMs ? "idle" : "stray");
    }
    if (timeoutMs == kMeasureMs && !s_machine.stopped)
    {
        s_machine.Measure();
    }
    return s_machine.stopped ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}
void WINAPI FakeSleep(DWORD timeoutMs)
{
    s_machine.Note(timeoutMs == kMeasureMs ? "sleep" : "nap");
    s_machine.Measure();
}

class CFakeTimer final : public IWorkingSetTimer
{
public:
    bool scheduleWsTimer() noexcept override
    {
        s_machine.Note("arm");
        return s_machine.arms;
    }
};

WorkingSetRecord Settings(DWORD count = 1, ULONGLONG storedLimit = 20 * kMb)
{
    return {1, 0, 5, kMeasureMs, 0, 0, 30, static_cast<DWORD>(storedLimit), 5 * kMb, count, kIdleMs};
}

constexpr LONGLONG kBusy = 4 * kMeasureTicks / 10;

struct Step
{
    char trigger; ///< T timer, E event
    ULONGLONG workingSet;
    const char* trace;
    ULONGLONG limitAfter;
};

class WorkingSetCallbackTest : public ::testing::Test
{
protected:
    WorkingSetCallbackTest()
    {
        s_machine = Machine();
        s_machine.stopEvent = m_stopEvent.Get();
    }

    void InitAgain(const WorkingSetRecord& record)
    {
        ASSERT_TRUE(m_callback->init(m_stopEvent.Get(), &m_timer, record));
    }
    void Restart(const WorkingSetRecord& record)
    {
        m_callback.emplace();
        InitAgain(record);
    }
    std::string Run(char trigger, ULONGLONG workingSet, bool expected = true)
    {
        s_machine.trace.clear();
        s_machine.workingSet = workingSet;
        EXPECT_EQ(m_callback->OnCallback(trigger == 'T'), expected);
        return s_machine.trace;
    }
    void Play(const std::vector<Step>& steps)
    {
        for (const Step& step : steps)
        {
            SCOPED_TRACE(testing::Message() << step.trigger << ' ' << step.workingSet);
            EXPECT_EQ(Run(step.trigger, step.workingSet), step.trace);
            EXPECT_EQ(m_callback->GetOptimalBucketUpperLimit(), step.limitAfter);
        }
    }

    CLogCapture m_log;
    Basalt::CHandle m_stopEvent{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    CFakeTimer m_timer;
    std::optional<CTxWorkingSetCallback> m_callback{std::in_place};
    CImportPatch m_patches[7] = {
        {"K32GetProcessMemoryInfo", &FakeMemoryInfo},
        {"SetProcessWorkingSetSize", &FakeSetWorkingSet},
        {"GetSystemTimeAsFileTime", &FakeSystemTime},
        {"GetProcessTimes", &FakeProcessTimes},
        {"GetSystemInfo", &FakeSystemInfo},
        {"WaitForSingleObject", &FakeWait},
        {"Sleep", &FakeSleep}};
};

TEST_F(WorkingSetCallbackTest, CpuUsageIsTheShareOfAllProcessorsAndFailsWithAReason)
{
    const struct
    {
        const char* trace;
        LONGLONG elapsed, used;
        float usage;
        DWORD error = ERROR_SUCCESS;
        DWORD processors = 4;
        int readsUntilFailure = -1;
    } rows[] = {
        {"cpu", 1000, 600, 15.0F},
        {"sleep", 1000, 600, 60.0F, 0, 1}, // Without an event to wait on.
        {"cpu", 0, 0, NAN},
        {"cpu", 0, 1, INFINITY},
        {"cpu", -1, 0, 0, ERROR_INVALID_DATA},
        {"cpu", 1000, 600, 0, ERROR_INVALID_DATA, 0},
        {"", 1000, 600, 0, ERROR_ACCESS_DENIED, 4, 0},
        {"cpu", 1000, 600, 0, ERROR_ACCESS_DENIED, 4, 1},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.trace << ' ' << row.elapsed << ' ' << row.used);
        s_machine.trace.clear();
        s_machine.elapsedTicks = row.elapsed;
        s_machine.usedTicks = {row.used};
        s_machine.processors = row.processors;
        s_machine.readsUntilFailure = row.readsUntilFailure;
        const HANDLE stop = row.trace == std::string("sleep") ? nullptr : m_stopEvent.Get();
        float usage = 77;

        const bool measured = GetProcessCpuUsage(::GetCurrentProcess(), kMeasureMs, stop, usage);
        const DWORD error = measured ? DWORD{ERROR_SUCCESS} : ::GetLastError();

        EXPECT_EQ(measured, row.error == ERROR_SUCCESS);
        EXPECT_EQ(error, row.error);
        EXPECT_TRUE(usage == row.usage || (std::isnan(usage) && std::isnan(row.usage))) << usage;
        EXPECT_EQ(s_machine.trace, row.trace);
    }
}

TEST_F(WorkingSetCallbackTest, InitRejectsZerosInTheirOrderAndTakesTheStoredLimit)
{
    const struct
    {
        DWORD range, factor, count, idle, stored;
        const wchar_t* rejected;
        ULONGLONG limit;
    } rows[] = {
        {0, 0, 0, 0, 50, L"m_dwWsBucketRange invalid (0)", 0},
        {9, 0, 0, 0, 50, L"m_wsLimitFactor invalid (0)", 0},
        {9, 1, 0, 0, 50, L"m_dwOptimalOccuranceCount invalid (0)", 0},
        {9, 1, 1, 0, 50, L"m_processIdleWaitTime invalid (0)", 0},
        {9, 1, 1, 1, 8, nullptr, 0},
        {9, 1, 1, 1, 9, nullptr, 9},
        {9, 1, 1, 1, 0xFFFFFFFF, nullptr, 0xFFFFFFFF},
        {0xFFFFFFFF, 1, 1, 1, 0xFFFFFFFE, nullptr, 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.range << ' ' << row.stored << ' ' << row.limit);
        m_callback.emplace();
        m_log.Clear();

        const bool accepted = m_callback->init(
            m_stopEvent.Get(),
            &m_timer,
            {1, 1, 5, 1, 0, 0, row.factor, row.stored, row.range, row.count, row.idle});

        EXPECT_EQ(accepted, row.rejected == nullptr);
        EXPECT_EQ(m_log.Lines().size(), accepted ? 0U : 1U);
        EXPECT_TRUE(accepted || m_log.Has(LogWarning, row.rejected));
        EXPECT_EQ(m_callback->GetOptimalBucketUpperLimit(), row.limit);
    }
}

TEST_F(WorkingSetCallbackTest, InitialSamplingTrimsEveryTimeAndFindsTheBand)
{
    Restart(Settings(3, 5 * kMb - 1));
    Play({
        {'T', 12 * kMb, "cpu ws trim arm", 0}, // Only starts the cycle.
        {'T', 12 * kMb, "cpu ws trim arm", 0},
        {'E', 0, "cpu trim arm", 0}, // Records nothing.
        {'T', 13 * kMb, "cpu ws trim arm", 0},
        {'T', 25 * kMb / 2, "cpu ws trim arm", 15728640},
        {'T', 20447232, "ws arm", 15728640}, // Regular from here on; exactly the ceiling is within range.
        {'T', 20447233, "ws cpu trim arm", 15728640},
    });
}

TEST_F(WorkingSetCallbackTest, RegularRunsTrimBeyondTheCeilingAndRecordAfterATrim)
{
    // With an occurrence count of 1 every recorded sample shows at once, as the new band.
    Restart(Settings(1, 22 * kMb));
    Play({
        {'T', 17 * kMb, "ws arm", 22 * kMb},     // The lower edge is within range.
        {'T', 17 * kMb - 1, "ws arm", 20 * kMb}, // Below it is always recorded: the band moves.
        {'T', 15 * kMb - 1, "ws arm", 15 * kMb},
        {'T', 39 * kMb / 2, "ws arm", 15 * kMb}, // Within 1.3 times the upper edge, no trim before it.
        {'T', 39 * kMb / 2 + 1, "ws cpu trim arm", 15 * kMb}, // Beyond: trimmed, the first time not recorded.
        {'T', 16 * kMb, "ws arm", 20 * kMb},                  // Recorded, and the mark is gone:
        {'T', 21 * kMb, "ws arm", 20 * kMb},
        {'E', 0, "cpu trim arm", 20 * kMb},
        {'T', 22 * kMb, "ws arm", 25 * kMb},
        {'E', 0, "cpu trim arm", 25 * kMb},
        {'T', 101 * kMb, "ws cpu trim arm", 105 * kMb}, // Recorded with the size before the trim; mark kept.
        {'T', 106 * kMb, "ws arm", 110 * kMb},
        {'T', 111 * kMb, "ws arm", 110 * kMb},
    });
}

TEST_F(WorkingSetCallbackTest, BusyProcessesWaitAndRunsEndEarlyWithoutArmingTheTimer)
{
    constexpr LONGLONG kLong = 1'000'000'000'000;
    constexpr ULONGLONG kBelow = 1 * kMb;
    constexpr ULONGLONG kWithin = 17 * kMb;
    constexpr ULONGLONG kAbove = 50 * kMb;
    const struct
    {
        bool initial;
        char trigger;
        ULONGLONG workingSet;
        const char* stopAt;
        std::deque<LONGLONG> used;
        const char* trace;
        bool result;
        LONGLONG elapsed = kMeasureTicks;
    } rows[] = {
        {true, 'T', kAbove, "cpu", {}, "cpu idle", false},
        {true, 'T', kAbove, "idle", {kBusy}, "cpu idle", false},
        {true, 'T', kAbove, "", {kBusy, kBusy}, "cpu idle cpu idle cpu ws trim arm", true},
        {true, 'T', 0, "", {}, "cpu ws", false},
        {false, 'T', 0, "", {}, "ws", false},
        {false, 'T', kBelow, "ws", {}, "ws", false},
        {false, 'T', kWithin, "ws", {}, "ws arm", true}, // It is for the handler to refuse.
        {false, 'T', kAbove, "cpu", {}, "ws cpu idle", false},
        {false, 'T', kAbove, "", {kBusy}, "ws cpu idle cpu trim arm", true},
        {false, 'E', kAbove, "", {kBusy}, "cpu", true}, // Left alone, and the timer is armed already.
        {false, 'E', kAbove, "", {kLong / 5}, "cpu trim arm", true, kLong},     // Exactly the limit.
        {false, 'E', kAbove, "", {kLong / 5 + 1}, "cpu trim arm", true, kLong}, // Not in single precision.
        {false, 'E', kAbove, "", {kLong / 5 + 99999}, "cpu", true, kLong},
        {false, 'E', kAbove, "", {}, "cpu", true, -1}, // Time runs backwards.
        {false, 'E', kAbove, "cpu", {}, "cpu", true},
        {false, 'E', kAbove, "info", {}, "cpu", false},
        {false, 'E', kAbove, "trim", {}, "cpu trim", false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.initial << row.trigger << row.trace);
        Restart(Settings(9, row.initial ? 0 : 20 * kMb));
        s_machine.stopped = false;
        s_machine.stopAt = row.stopAt;
        s_machine.usedTicks = row.used;
        s_machine.elapsedTicks = row.elapsed;

        EXPECT_EQ(Run(row.trigger, row.workingSet, row.result), row.trace);
    }
    EXPECT_EQ(m_log.Count(LogError, L"GetProcessCpuUsage failed (GLE=0x0000000D)"), 1U);
    s_machine.stopAt.clear();
    s_machine.stopped = false;
    s_machine.arms = false;
    EXPECT_EQ(Run('T', kWithin, false), "ws arm");
}

TEST_F(WorkingSetCallbackTest, CeilingIsExactAndStaysWithinSixtyFourBits)
{
    constexpr ULONGLONG kHuge = 1ULL << 60;
    const struct
    {
        DWORD factor, range, stored;
        ULONGLONG learnt; ///< Size to record first; 0: none.
        ULONGLONG ceiling;
    } rows[] = {
        {7, 100, 1000, 0, 1070},
        {29, 100, 100, 0, 128}, // 0.29 has no exact form: 28.999999999999996 is truncated.
        {200, 0x80000000, 0xFFFFFFFF, 0, 12884901885},
        {0xFFFFFFFF, 0x500000, 15728640, 0, 675539959676928},
        {30, 0x500000, 15728640, kHuge, 1498797955994353664},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.factor << ' ' << row.stored);
        WorkingSetRecord record = Settings(1, row.stored);
        record.dwLimitFactor = row.factor;
        record.dwBucketRange = row.range;
        Restart(record);
        if (row.learnt != 0)
        {
            Run('E', 0);
            Run('T', row.learnt);
            Run('T', m_callback->GetOptimalBucketUpperLimit() - 1); // Takes the mark away, same band.
        }

        EXPECT_EQ(Run('T', row.ceiling), "ws arm");
        EXPECT_EQ(Run('T', row.ceiling + 1), "ws cpu trim arm");
    }
    // Beyond what 64 bits hold everything is within range.
    WorkingSetRecord record = Settings(1);
    record.dwLimitFactor = 0xFFFFFFFF;
    Restart(record);
    Run('E', 0);
    Run('T', 1ULL << 52);
    Run('E', 0);
    Run('T', kHuge);
    EXPECT_EQ(Run('T', ~0ULL), "ws arm");
}

TEST_F(WorkingSetCallbackTest, TiesAreBrokenByTheTableAndSamplesOutliveNewSettings)
{
    const auto record = [this](std::initializer_list<ULONGLONG> buckets) {
        for (const ULONGLONG bucket : buckets)
        {
            Run('T', bucket * 5 * kMb + 1);
        }
        return m_callback->GetOptimalBucketUpperLimit();
    };
    Restart(Settings(3, 0));
    Run('T', 1);
    EXPECT_EQ(record({1, 18, 1, 18}), 0U);
    EXPECT_EQ(record({1}), 10 * kMb);

    // The samples from before stay. With a count of 2 both 1 and 18 qualify: the newer one of the chain wins.
    InitAgain(Settings(3, 0));
    EXPECT_EQ(record({4, 1, 18, 1, 18}), 0U);
    InitAgain(Settings(2, 0));
    EXPECT_EQ(record({3}), 95 * kMb);

    // They are counted anew when the bucket range changes.
    InitAgain(Settings(3, 0));
    EXPECT_EQ(record({0, 1}), 0U);
    WorkingSetRecord wider = Settings(3, 0);
    wider.dwBucketRange = 20 * kMb;
    InitAgain(wider);
    EXPECT_EQ(record({2}), 20 * kMb);
}

TEST_F(WorkingSetCallbackTest, ProgressIsLoggedOnRequestAndFailuresAlways)
{
    const std::vector<std::wstring> progress = {
        L"Working set event triggered (timer)",
        L"Initial sampling.",
        L"CPU Usage is above limit (>5)",
        L"Process working set adjusted successfully",
        L"Working set event triggered",
        L"Process working set adjusted successfully",
        L"Working set event triggered (timer)",
        L"Initial sampling.",
        L"Process working set adjusted successfully",
        L"New optimal bucket decided, m_wsOptimalBucket.first=-1296039936, "
        L"m_wsOptimalBucket.second=-1290797056",
        L"Working set event triggered (timer)",
        L"Regular run.",
        L"Current working set is within range, Current WS=-1294967295",
        L"New optimal bucket decided, m_wsOptimalBucket.first=-1296039936, "
        L"m_wsOptimalBucket.second=-1290797056",
        L"Working set event triggered (timer)",
        L"Regular run.",
        L"Current working set is lower than the range, Current WS=1",
        L"New optimal bucket decided, m_wsOptimalBucket.first=0, m_wsOptimalBucket.second=5242880",
    };
    const std::vector<std::wstring> failures = {
        L"Failed to get the process working set (GLE=0x00000005)",
        L"The current working set is 0",
        L"Failed to set the process working set (GLE=0x00000522)"};
    for (const DWORD loggingEnabled : {0U, 1U})
    {
        SCOPED_TRACE(loggingEnabled);
        WorkingSetRecord record = Settings(1, 0);
        record.dwLoggingEnabled = loggingEnabled;
        Restart(record);
        m_log.Clear();
        s_machine.usedTicks = {kBusy};
        for (const char trigger : {'T', 'E', 'T', 'T'})
        {
            Run(trigger, 3000000001);
        }
        Run('T', 1);

        EXPECT_EQ(m_log.Messages(), loggingEnabled != 0 ? progress : std::vector<std::wstring>());
        for (const LogLine& line : m_log.Lines())
        {
            EXPECT_EQ(line.level, DWORD{LogNormal});
            EXPECT_EQ(line.source, L"TxWorkingSetCallback");
        }
        m_log.Clear();
        Run('T', 0, false);
        s_machine.trims = false;
        Run('E', 0);
        s_machine.trims = true;
        for (const std::wstring& failure : failures)
        {
            EXPECT_EQ(m_log.Count(LogError, failure), 1U);
        }
    }
}

TEST_F(WorkingSetCallbackTest, WithoutInitTheEntrySaysSoAndGoesOn)
{
    EXPECT_EQ(Run('T', 1, false), "ws sleep trim");
    EXPECT_EQ(m_log.Count(LogWarning, L"OnCallback called without initializing"), 1U);
}

TEST(WorkingSetCallback, OverlappingRunsLoseNoSample)
{
    constexpr int kThreads = 4;
    constexpr int kRuns = 30000;
    static std::atomic<int> s_armed = 0;
    struct CCountingTimer final : IWorkingSetTimer
    {
        bool scheduleWsTimer() noexcept override { return ++s_armed != 0; }
    } timer;
    const Basalt::CHandle stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    s_machine = Machine();
    s_machine.stopEvent = stopEvent.Get();
    const CImportPatch wait("WaitForSingleObject", &FakeWait); // Real waits would keep the runs apart.
    const CImportPatch memory(
        "K32GetProcessMemoryInfo",
        static_cast<BOOL(WINAPI*)(HANDLE, PROCESS_MEMORY_COUNTERS*, DWORD)>(
            [](HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD) {
                // Half of the runs see a bucket of their own.
                static std::atomic<ULONGLONG> s_run = 0;
                const ULONGLONG run = s_run++;
                counters->WorkingSetSize = run % 2 == 0 ? 42 : run * 100;
                return TRUE;
            }));
    CTxWorkingSetCallback callback;
    ASSERT_TRUE(callback.init(
        stopEvent.Get(),
        &timer,
        {1, 0, 5, 0, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF, 100, kThreads * kRuns / 2, kIdleMs}));

    std::atomic<int> ready = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back([&callback, &ready] {
            for (++ready; ready < kThreads;) // All at once.
            {
            }
            for (int run = 0; run < kRuns; ++run)
            {
                callback.OnCallback(true);
            }
        });
    }
    while (s_armed < kThreads * kRuns)
    {
        const ULONGLONG limit = callback.GetOptimalBucketUpperLimit();
        ASSERT_TRUE(limit == 0xFFFFFFFF || limit == 100) << limit;
        ::Sleep(1);
    }
    threads.clear();

    EXPECT_EQ(callback.GetOptimalBucketUpperLimit(), 100U); // Decided by the very last sample of bucket 0.
}

} // namespace
