#include "workingset/TxWorkingSetCallback.h"

#include <psapi.h>

#include <atomic>
#include <deque>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <tuple>

#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "workingset/WorkingSetTimer.h"

using namespace ETWLogging;

namespace
{

constexpr ULONGLONG kMb = 1024 * 1024, kBelow = kMb, kWithin = 17 * kMb, kAbove = 50 * kMb;
constexpr DWORD kMeasureMs = 5000, kIdleMs = 60000;
constexpr LONGLONG kTicks = kMeasureMs * 10000LL, kBusy = 4 * kTicks / 10, kLong = 1'000'000'000'000;

/// A run, the machine that it finds, and what it does.
struct Step
{
    std::optional<WorkingSetRecord> start; ///< With new settings.
    char trigger;         ///< T timer, E event; t: timer, after an init that forgets nothing.
    ULONGLONG workingSet; ///< 0: cannot be read.
    std::string
        trace; ///< "ws" the size is read, "cpu" usage measured, "idle" waited for less, "trim", "arm".
    ULONGLONG limitAfter;
    bool result = true;
    std::string stopAt = {}; ///< Stop is requested while this is asked for ("info": after measuring).
    std::deque<LONGLONG> usedTicks = {}; ///< Of the next measurements; then none.
    LONGLONG elapsedTicks = kTicks;
    DWORD processors = 4;
    int readsUntilFailure = -1; ///< Of the process times; negative: never.
    bool works = true;          ///< Trimming and arming.
};

struct Machine final : IWorkingSetTimer
{
    Step step;
    std::string trace;
    bool stopped = false;
    CTxWorkingSetCallback* signalled = nullptr;   ///< By the event, once, while usage is measured.
    LONGLONG now = 0xFFFFFFFF, used = 0xFFFFFFFF; // Every interval carries into the upper half of a FILETIME.

    bool scheduleWsTimer() noexcept override { return Note("arm"); }
    bool Note(const char* token)
    {
        trace += trace.empty() ? token : std::string(" ") + token;
        stopped = stopped || step.stopAt == token;
        ::SetLastError(ERROR_ACCESS_DENIED);
        return step.works;
    }
    DWORD Wait(DWORD ms)
    {
        ms == 0 || Note(ms == kMeasureMs ? "cpu" : ms == kIdleMs ? "idle" : "stray");
        if (ms == kMeasureMs && !stopped)
        {
            CTxWorkingSetCallback* const again = std::exchange(signalled, nullptr);
            EXPECT_TRUE(again == nullptr || again->OnCallback(false));
            now += step.elapsedTicks;
            step.usedTicks.push_back(0);
            used += step.usedTicks.front();
            step.usedTicks.pop_front();
        }
        return stopped ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }
} s_machine;

const HANDLE s_stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
const auto s_realWait = RealFunction<decltype(::WaitForSingleObject)>("WaitForSingleObject");
DWORD WINAPI FakeWait(HANDLE object, DWORD ms)
{
    return object == s_stopEvent ? s_machine.Wait(ms) : s_realWait(object, ms);
}
FILETIME ToFileTime(LONGLONG time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

WorkingSetRecord Settings(DWORD count, ULONGLONG stored = 20 * kMb, DWORD factor = 30, DWORD range = 5 * kMb)
{
    return {1, 0, 5, kMeasureMs, 0, 0, factor, static_cast<DWORD>(stored), range, count, kIdleMs};
}

struct WorkingSetCallbackTest : ::testing::Test
{
    void Play(const Step& step)
    {
        SCOPED_TRACE(testing::Message() << step.trigger << ' ' << step.workingSet << ' ' << step.trace);
        s_machine.step = step;
        s_machine.trace.clear();
        s_machine.stopped = false;
        step.start&& step.trigger != 't' ? void(m_callback.emplace()) : void();
        ASSERT_TRUE(!step.start || m_callback->init(s_stopEvent, &s_machine, *step.start));

        EXPECT_EQ(m_callback->OnCallback(step.trigger != 'E'), step.result);

        EXPECT_EQ(s_machine.trace, step.trace);
        EXPECT_EQ(m_callback->GetOptimalBucketUpperLimit(), step.limitAfter);
    }

    CLogCapture m_log;
    std::optional<CTxWorkingSetCallback> m_callback{std::in_place};
    CImportPatch m_patches[6] = {
        {"K32GetProcessMemoryInfo",
         +[](HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD) -> BOOL {
             return s_machine.Note("ws"), (counters->WorkingSetSize = s_machine.step.workingSet) != 0;
         }},
        {"SetProcessWorkingSetSize",
         +[](HANDLE process, SIZE_T least, SIZE_T most) -> BOOL {
             return s_machine.Note(
                 process == ::GetCurrentProcess() && (least & most) == ~SIZE_T{0} ? "trim" : "stray");
         }},
        {"GetSystemTimeAsFileTime", +[](FILETIME* now) { *now = ToFileTime(s_machine.now); }},
        {"GetProcessTimes",
         +[](HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user) -> BOOL {
             *kernel = ToFileTime(s_machine.used / 3);
             *user = ToFileTime(s_machine.used - s_machine.used / 3);
             return ::SetLastError(ERROR_ACCESS_DENIED), s_machine.step.readsUntilFailure-- != 0;
         }},
        {"GetSystemInfo",
         +[](SYSTEM_INFO* info) {
             info->dwNumberOfProcessors = s_machine.step.processors;
             s_machine.stopped = s_machine.stopped || s_machine.step.stopAt == "info";
         }},
        {"WaitForSingleObject", &FakeWait}};
};

TEST_F(WorkingSetCallbackTest, InitRejectsZerosInTheirOrderAndTakesTheStoredLimit)
{
    // Bucket range, limit factor, occurrence count, idle wait, stored limit; the complaint, the limit.
    const std::tuple<DWORD, DWORD, DWORD, DWORD, DWORD, std::wstring, ULONGLONG> rows[] = {
        {0, 0, 0, 0, 50, L"m_dwWsBucketRange invalid (0)", 0},
        {9, 0, 0, 0, 50, L"m_wsLimitFactor invalid (0)", 0},
        {9, 1, 0, 0, 50, L"m_dwOptimalOccuranceCount invalid (0)", 0},
        {9, 1, 1, 0, 50, L"m_processIdleWaitTime invalid (0)", 0},
        {9, 1, 1, 1, 8, L"", 0},
        {9, 1, 1, 1, 9, L"", 9},
        {9, 1, 1, 1, 0xFFFFFFFF, L"", 0xFFFFFFFF},
        {0xFFFFFFFF, 1, 1, 1, 0xFFFFFFFE, L"", 0}};
    for (const auto& [range, factor, count, idle, stored, complaint, limit] : rows)
    {
        CTxWorkingSetCallback callback;
        m_log.Clear();
        const WorkingSetRecord record{1, 1, 5, 1, 0, 0, factor, stored, range, count, idle};
        EXPECT_EQ(callback.init(s_stopEvent, &s_machine, record), complaint.empty());
        EXPECT_EQ(m_log.Lines().size(), m_log.Count(LogWarning, complaint));
        EXPECT_EQ(m_log.Lines().empty(), complaint.empty());
        EXPECT_EQ(callback.GetOptimalBucketUpperLimit(), limit) << stored;
    }
}

TEST_F(WorkingSetCallbackTest, RunsTrimAndLearnTheBand)
{
    const Step steps[] = {
        {Settings(3, 5 * kMb - 1), 'T', 12 * kMb, "cpu ws trim arm", 0}, // Only starts the cycle.
        {{}, 'T', 12 * kMb, "cpu ws trim arm", 0},
        {{}, 'E', 0, "cpu trim arm", 0}, // Records nothing.
        {{}, 'T', 13 * kMb, "cpu ws trim arm", 0},
        {{}, 'T', 25 * kMb / 2, "cpu ws trim arm", 15 * kMb},
        {{}, 'T', 20447232, "ws arm", 15 * kMb}, // Regular from here on; exactly the ceiling is within range.
        {{}, 'T', 20447233, "ws cpu trim arm", 15 * kMb},
        // With an occurrence count of 1 every recorded sample shows at once, as the new band.
        {Settings(1, 22 * kMb), 'T', 17 * kMb, "ws arm", 22 * kMb}, // The lower edge is within range.
        {{}, 'T', 17 * kMb - 1, "ws arm", 20 * kMb}, // Below it is always recorded: the band moves.
        {{}, 'T', 15 * kMb - 1, "ws arm", 15 * kMb},
        {{}, 'T', 39 * kMb / 2, "ws arm", 15 * kMb}, // Within 1.3 times the upper edge, no trim before it.
        {{}, 'T', 39 * kMb / 2 + 1, "ws cpu trim arm", 15 * kMb}, // Trimmed, the first time not recorded.
        {{}, 'T', 16 * kMb, "ws arm", 20 * kMb},                  // Recorded, and the mark is gone:
        {{}, 'T', 21 * kMb, "ws arm", 20 * kMb},
        {{}, 'E', 0, "cpu trim arm", 20 * kMb},
        {{}, 'T', 22 * kMb, "ws arm", 25 * kMb},
        {{}, 'E', 0, "cpu trim arm", 25 * kMb},
        {{}, 'T', 101 * kMb, "ws cpu trim arm", 105 * kMb}, // The size before the trim; mark kept.
        {{}, 'T', 106 * kMb, "ws arm", 110 * kMb},
        {{}, 'T', 111 * kMb, "ws arm", 110 * kMb},
        // Samples outlive new settings; of two bands that qualify the table's first wins, the newer of a
        // chain.
        {Settings(3, 0), 'T', 1, "cpu ws trim arm", 0},
        {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
        {{}, 'T', 91 * kMb, "cpu ws trim arm", 0},
        {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
        {{}, 'T', 91 * kMb, "cpu ws trim arm", 0},
        {Settings(2, 0), 't', 16 * kMb, "cpu ws trim arm", 95 * kMb},
        // They are counted anew when the bucket range changes.
        {Settings(3, 0), 't', 1, "cpu ws trim arm", 0},
        {{}, 'T', 6 * kMb, "cpu ws trim arm", 0},
        {Settings(3, 0, 30, 20 * kMb), 't', 11 * kMb, "cpu ws trim arm", 20 * kMb},
        // The ceiling is exact. 0.29 has no exact form: 28.999999999999996 is truncated.
        {Settings(1, 100, 29, 100), 'T', 128, "ws arm", 100},
        {{}, 'T', 129, "ws cpu trim arm", 100},
        {Settings(1, 0xFFFFFFFF, 200, 0x80000000), 'T', 12884901885, "ws arm", 0xFFFFFFFF},
        {{}, 'T', 12884901886, "ws cpu trim arm", 0xFFFFFFFF},
        {Settings(1, 15 * kMb, 0xFFFFFFFF), 'T', 675539959676928, "ws arm", 15 * kMb},
        {{}, 'T', 675539959676929, "ws cpu trim arm", 15 * kMb},
        {{}, 'T', 1ULL << 49, "ws arm", (1ULL << 49) / (5 * kMb) * 5 * kMb + 5 * kMb},
        {{}, 'T', ~0ULL, "ws arm", (1ULL << 49) / (5 * kMb) * 5 * kMb + 5 * kMb}, // All that 64 bits hold.
    };
    for (const Step& step : steps)
    {
        Play(step);
    }
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(WorkingSetCallbackTest, BusyProcessesWaitAndRunsEndEarlyWithoutArmingTheTimer)
{
    constexpr ULONGLONG kStored = 20 * kMb;
    const WorkingSetRecord known = Settings(9);
    const WorkingSetRecord unknown = Settings(9, 0);
    const Step steps[] = {
        {unknown, 'T', kAbove, "cpu idle", 0, false, "cpu"},
        {unknown, 'T', kAbove, "cpu idle", 0, false, "idle", {kBusy}},
        {unknown, 'T', kAbove, "cpu idle cpu idle cpu ws trim arm", 0, true, "", {kBusy, kBusy}},
        {unknown, 'T', 0, "cpu ws", 0, false},
        {known, 'T', 0, "ws", kStored, false},
        {known, 'T', kBelow, "ws", kStored, false, "ws"},
        {known, 'T', kWithin, "ws arm", kStored, true, "ws"}, // It is for the handler to refuse.
        {known, 'T', kWithin, "ws arm", kStored, false, "", {}, kTicks, 4, -1, false},
        {known, 'T', kAbove, "ws cpu idle", kStored, false, "cpu"},
        {known, 'T', kAbove, "ws cpu idle cpu trim arm", kStored, true, "", {kBusy}},
        {known, 'E', kAbove, "cpu", kStored, true, "", {kBusy}}, // Left alone; the timer is armed already.
        {known, 'E', kAbove, "cpu trim arm", kStored, true, "", {kLong / 5}, kLong}, // Exactly the limit.
        {known, 'E', kAbove, "cpu trim arm", kStored, true, "", {kLong / 20}, kLong, 1},
        {known, 'E', kAbove, "cpu trim arm", kStored, true, "", {kLong / 5 + 1}, kLong}, // In single
                                                                                         // precision.
        {known, 'E', kAbove, "cpu", kStored, true, "", {kLong / 5 + 99999}, kLong},
        {known, 'E', kAbove, "cpu trim arm", kStored, true, "", {0}, 0}, // Not a number is not above.
        {known, 'E', kAbove, "cpu", kStored, true, "", {1}, 0},          // Infinity is.
        {known, 'E', kAbove, "cpu", kStored, true, "", {}, -1},          // Time runs backwards.
        {known, 'E', kAbove, "cpu", kStored, true, "", {}, kTicks, 0},
        {known, 'E', kAbove, "", kStored, true, "", {}, kTicks, 4, 0},
        {known, 'E', kAbove, "cpu", kStored, true, "", {}, kTicks, 4, 1},
        {known, 'E', kAbove, "cpu trim arm", kStored, false, "", {}, kTicks, 4, -1, false},
        {known, 'E', kAbove, "cpu", kStored, true, "cpu"},
        {known, 'E', kAbove, "cpu", kStored, false, "info"},
        {known, 'E', kAbove, "cpu trim", kStored, false, "trim"},
    };
    for (const Step& step : steps)
    {
        Play(step);
    }
    // Signals that come while a run by the event measures are answered by its trim.
    for (int run = 0; run < 2; ++run)
    {
        s_machine.signalled = &*m_callback;
        Play({{}, 'E', kAbove, "cpu trim arm", kStored});
    }
    EXPECT_EQ(m_log.Count(LogError, L"GetProcessCpuUsage failed (GLE=0x0000000D)"), 2U);
    EXPECT_EQ(m_log.Count(LogError, L"GetProcessCpuUsage failed (GLE=0x00000005)"), 2U);
    EXPECT_EQ(m_log.Count(LogError, L"Failed to get the process working set (GLE=0x00000005)"), 2U);
    EXPECT_EQ(m_log.Count(LogError, L"The current working set is 0"), 2U);
    EXPECT_EQ(m_log.Count(LogError, L"Failed to set the process working set (GLE=0x00000005)"), 1U);
    EXPECT_EQ(m_log.CountContaining(LogNormal, L""), 0U);
}

TEST_F(WorkingSetCallbackTest, ProgressIsLoggedOnRequest)
{
    WorkingSetRecord record = Settings(1);
    record.dwLoggingEnabled = 1;
    Play({record, 'E', 0, "cpu", 20 * kMb, true, "", {kBusy}});
    Play({{}, 'E', 0, "cpu trim arm", 20 * kMb});
    Play({{}, 'T', 3000000001, "ws cpu trim arm", 3004170240});

    const std::vector<std::wstring> expected = {
        L"Working set event triggered",
        L"CPU Usage is above limit (>5)",
        L"Working set event triggered",
        L"Process working set adjusted successfully",
        L"Working set event triggered (timer)",
        L"Regular run.",
        L"Process working set adjusted successfully",
        L"New optimal bucket decided, m_wsOptimalBucket.first=-1296039936, "
        L"m_wsOptimalBucket.second=-1290797056"};
    EXPECT_EQ(m_log.Messages(), expected);
}

TEST(WorkingSetCallback, OverlappingRunsLoseNoSample)
{
    constexpr int kThreads = 4, kRuns = 30000;
    static std::atomic<int> s_armed = 0;
    struct CCountingTimer final : IWorkingSetTimer
    {
        bool scheduleWsTimer() noexcept override { return ++s_armed != 0; }
    } timer;
    s_machine = Machine();
    const CImportPatch wait("WaitForSingleObject", &FakeWait); // Real waits would keep the runs apart.
    const CImportPatch memory(
        "K32GetProcessMemoryInfo", +[](HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD) -> BOOL {
            static std::atomic<ULONGLONG> s_run = 0;
            const ULONGLONG run = s_run++;
            return (counters->WorkingSetSize = run % 2 == 0 ? 42 : run * 100) !=
                   0; // Half have a bucket of their own.
        });
    const DWORD limit = 0xFFFFFFFF;
    CTxWorkingSetCallback callback;
    ASSERT_TRUE(callback.init(s_stopEvent, &timer, Settings(kThreads * kRuns / 2, limit, limit, 100)));

    std::atomic<int> ready = 0;
    std::vector<std::jthread> threads;
    while (threads.size() < kThreads)
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
    threads.clear();

    EXPECT_EQ(s_armed, kThreads * kRuns);
    EXPECT_EQ(callback.GetOptimalBucketUpperLimit(), 100U); // Decided by the very last sample of bucket 0.
}

} // namespace
