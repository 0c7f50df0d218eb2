#include "workingset/TxSvcHostWorkingSetHandler.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "base/Stopwatch.h"
#include "base/SystemLibrary.h"
#include "base/WorkingSetEvent.h"
#include "logging/LoggingIf.h"
#include "support/HandleCount.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

using Messages = std::vector<std::wstring>;

const std::wstring kStopped = L"The working set handler is stopped";
const std::wstring kEnding = L"Working set handler de-initializing";

/// Timers of ten minutes and more: none fires in a test.
WorkingSetRecord Settings()
{
    return {1, 0, 100, 0, 600000, 600000, 30, 0, 0x500000, 3, 60000};
}

Basalt::CHandle OpenTrimEvent()
{
    return Basalt::CHandle(::OpenEventW(
        EVENT_MODIFY_STATE, FALSE, Basalt::WorkingSetEventName(::GetCurrentProcessId()).c_str()));
}

template <typename Function>
Function* Real(const char* name)
{
    return Basalt::FindExport<Function>(::GetModuleHandleW(L"kernel32.dll"), name);
}

std::vector<DWORD> s_dueTimes;
BOOL WINAPI CountingCreateTimer(
    HANDLE* timer,
    HANDLE queue,
    WAITORTIMERCALLBACK callback,
    void* context,
    DWORD due,
    DWORD period,
    ULONG flags)
{
    EXPECT_NE(queue, nullptr); // Null would be the process's default queue.
    EXPECT_EQ(period, 0U);
    s_dueTimes.push_back(due);
    static auto* const real = Real<decltype(::CreateTimerQueueTimer)>("CreateTimerQueueTimer");
    return real(timer, queue, callback, context, due, period, flags);
}
std::vector<HANDLE> s_completions;
DWORD s_deleteError = ERROR_SUCCESS;
BOOL WINAPI CountingDeleteTimer(HANDLE, HANDLE, HANDLE completion)
{
    s_completions.push_back(completion);
    ::SetLastError(s_deleteError);
    return s_deleteError == ERROR_SUCCESS;
}
int s_random = 0;
void (*s_whileDrawing)() = nullptr;
int __cdecl FakeRand()
{
    if (s_whileDrawing != nullptr)
    {
        std::exchange(s_whileDrawing, nullptr)();
    }
    return s_random;
}
CTxSvcHostWorkingSetHandler* s_handler = nullptr;

class WorkingSetHandlerTest : public ::testing::Test
{
protected:
    WorkingSetHandlerTest()
    {
        s_dueTimes.clear();
        s_completions.clear();
        s_deleteError = ERROR_SUCCESS;
        s_random = 0;
        s_handler = &m_handler;
    }

    CLogCapture m_log;
    CTxSvcHostWorkingSetHandler m_handler;
    CImportPatch m_patches[3] = {
        {"CreateTimerQueueTimer", &CountingCreateTimer},
        {"DeleteTimerQueueTimer", &CountingDeleteTimer},
        {"rand", &FakeRand}};
};

HANDLE WINAPI Fail()
{
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

TEST_F(WorkingSetHandlerTest, FailedInitializeUndoesWhatWasMadeAndNoMore)
{
    const std::wstring noTimer = L"Failed to register the timer callback";
    const struct
    {
        const char* failing;
        Messages messages;
    } rows[] = {
        {nullptr, {L"m_wsLimitFactor invalid (0)", L"Failed to initialize working set callback", kEnding}},
        {"CreateTimerQueue", {L"Failed to initialize timer queue", kEnding}},
        {"CreateEventW", {L"Failed to create working set event (GLE=0x00000008)", kEnding}},
        {"RegisterWaitForSingleObject",
         {L"Failed to register event callback for working set reduction", kEnding}},
        {"CreateTimerQueueTimer", {noTimer, noTimer, kEnding}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.failing != nullptr ? row.failing : "settings");
        m_log.Clear();
        WorkingSetRecord record = Settings();
        record.dwLimitFactor = row.failing != nullptr ? 30 : 0;
        const std::size_t handles = CountOwnHandles();
        {
            const CImportPatch patch(row.failing != nullptr ? row.failing : "none", &Fail);
            ASSERT_EQ(patch.IsActive(), row.failing != nullptr);

            EXPECT_FALSE(m_handler.Initialize(record));
        }

        EXPECT_EQ(m_log.Messages(), row.messages);
        for (const LogLine& line : m_log.Lines())
        {
            const DWORD level = line.message == kEnding ? LogNormal : LogError;
            EXPECT_EQ(line.level, line.message == L"m_wsLimitFactor invalid (0)" ? LogWarning : level);
        }
        EXPECT_TRUE(m_handler.IsStopRequested());
        EXPECT_FALSE(OpenTrimEvent());
        EXPECT_LE(CountOwnHandles(), handles + 4); // The pool's own.
    }
    EXPECT_TRUE(m_handler.Initialize(Settings()));
}

TEST_F(WorkingSetHandlerTest, WithoutAStopEventNothingStarts)
{
    const CImportPatch patch("CreateEventW", &Fail);
    CTxSvcHostWorkingSetHandler handler;

    EXPECT_TRUE(handler.IsStopRequested());
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to create the stop event (GLE=0x00000008)"));
}

TEST_F(WorkingSetHandlerTest, DueTimeSpansTheRangeWithBothEnds)
{
    const struct
    {
        DWORD base, range;
        int random;
        DWORD due;
    } rows[] = {
        {600000, 600000, 0, 600000},
        {600000, 600000, 32767, 1200000},
        {600000, 600000, 1, 600018}, // 18.3: truncated.
        {600000, 899999, 32766, 1499971},
        {600000, 0, 32767, 600000},
        {0x7FFFFFFF, 0x80000000, 32767, 0xFFFFFFFF},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.range << " x " << row.random);
        WorkingSetRecord record = Settings();
        record.dwTimerIntervalBase = row.base;
        record.dwRandomizationRange = row.range;
        s_random = row.random;
        s_dueTimes.clear();

        EXPECT_TRUE(m_handler.Initialize(record));

        EXPECT_EQ(s_dueTimes, std::vector<DWORD>{row.due});
    }
}

TEST_F(WorkingSetHandlerTest, OneTimerIsArmedAtMost)
{
    EXPECT_FALSE(m_handler.scheduleWsTimer()); // No queue yet.
    EXPECT_TRUE(s_dueTimes.empty());
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    EXPECT_TRUE(m_handler.scheduleWsTimer());
    EXPECT_TRUE(m_handler.scheduleWsTimer());
    EXPECT_EQ(s_dueTimes.size(), 3U);
    // Never blocking: it may be inside a callback.
    EXPECT_EQ(s_completions, (std::vector<HANDLE>{nullptr, nullptr}));

    // Another run arms the timer between the two steps of this one.
    s_whileDrawing = [] { s_handler->scheduleWsTimer(); };
    EXPECT_TRUE(m_handler.scheduleWsTimer());
    EXPECT_EQ(s_dueTimes.size(), 4U);
    EXPECT_EQ(s_completions.size(), 3U);

    // A new start leaves nothing of the old one: the timer went with its queue.
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    EXPECT_EQ(s_dueTimes.size(), 5U);
    EXPECT_EQ(s_completions.size(), 3U);
}

TEST_F(WorkingSetHandlerTest, CancelPassesOverARunningCallbackAndReportsTheRest)
{
    const struct
    {
        bool wait;
        DWORD error;
        bool cancelled;
    } rows[] = {
        {true, 0, true},
        {false, 0, true},
        {false, ERROR_IO_PENDING, true},
        {true, 87, false},
        {false, 87, false}};
    EXPECT_TRUE(m_handler.cancelWsTimer(true)); // There is none.
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.wait << ' ' << row.error);
        ASSERT_TRUE(m_handler.Initialize(Settings()));
        m_log.Clear();
        s_completions.clear();
        s_deleteError = row.error;

        EXPECT_EQ(m_handler.cancelWsTimer(row.wait), row.cancelled);
        EXPECT_TRUE(m_handler.cancelWsTimer(row.wait));

        EXPECT_EQ(s_completions, std::vector<HANDLE>{row.wait ? INVALID_HANDLE_VALUE : nullptr});
        EXPECT_EQ(
            m_log.Count(LogWarning, L"Failed to un-register the callback (GLE=0x00000057)"),
            row.cancelled ? 0U : 1U);
    }
}

TEST_F(WorkingSetHandlerTest, StopKeepsTheTimerFromBeingArmed)
{
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    s_whileDrawing = [] { s_handler->DeInitialize(); };

    EXPECT_FALSE(m_handler.scheduleWsTimer());
    EXPECT_EQ(m_log.Messages(), (Messages{kEnding, kStopped}));
    EXPECT_EQ(m_log.Count(LogNormal, kStopped), 1U);

    EXPECT_FALSE(m_handler.scheduleWsTimer());
    EXPECT_EQ(m_log.Count(LogWarning, kStopped), 1U);
    EXPECT_EQ(s_dueTimes.size(), 1U);
}

// These do it all the same, so that nothing stays behind for the other tests.
BOOL WINAPI FailingUnregister(HANDLE wait, HANDLE completion)
{
    Real<decltype(::UnregisterWaitEx)>("UnregisterWaitEx")(wait, completion);
    return Fail() != nullptr;
}
BOOL WINAPI FailingDeleteQueue(HANDLE queue, HANDLE completion)
{
    Real<decltype(::DeleteTimerQueueEx)>("DeleteTimerQueueEx")(queue, completion);
    return Fail() != nullptr;
}
BOOL WINAPI FailingClose(HANDLE handle)
{
    Real<decltype(::CloseHandle)>("CloseHandle")(handle);
    return Fail() != nullptr;
}

TEST_F(WorkingSetHandlerTest, FailuresOfTheTearDownAreReported)
{
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    {
        const CImportPatch patches[] = {
            {"UnregisterWaitEx", &FailingUnregister},
            {"DeleteTimerQueueEx", &FailingDeleteQueue},
            {"CloseHandle", &FailingClose}};

        EXPECT_FALSE(m_handler.DeInitialize());
        std::make_unique<CTxSvcHostWorkingSetHandler>().reset();
    }
    EXPECT_EQ(m_log.Count(LogWarning, L"Failed to unregister wait (GLE=0x00000008)"), 1U);
    EXPECT_EQ(m_log.Count(LogWarning, L"Failed to delete the timer queue (GLE=0x00000008)"), 1U);
    EXPECT_EQ(m_log.Count(LogError, L"CloseHandle failed to close the working set event handle"), 1U);
    EXPECT_EQ(m_log.Count(LogError, L"CloseHandle failed to close the stop event handle"), 1U);
    EXPECT_TRUE(m_handler.DeInitialize()); // There is nothing left to close.
}

// The rest runs with real timers, events and pool threads.
std::atomic<int> s_trims = 0;
std::atomic<int> s_measured = 0;
HANDLE s_progress = nullptr;
BOOL WINAPI CountingTrim(HANDLE, SIZE_T, SIZE_T)
{
    ++s_trims;
    return ::SetEvent(s_progress);
}
BOOL WINAPI BusyProcessTimes(HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user)
{
    *kernel = {static_cast<DWORD>(++s_measured), 1};
    *user = {0, static_cast<DWORD>(s_measured)}; // 430 s more each time.
    return ::SetEvent(s_progress);
}

class WorkingSetHandlerInRealTime : public ::testing::Test
{
protected:
    WorkingSetHandlerInRealTime() { s_progress = m_progress.Get(); }

    bool Reaches(const std::atomic<int>& counter, int value)
    {
        while (counter < value && ::WaitForSingleObject(s_progress, 10000) == WAIT_OBJECT_0)
        {
        }
        return counter >= value;
    }

    Basalt::CHandle m_progress{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    CTxSvcHostWorkingSetHandler m_handler;
};

TEST_F(WorkingSetHandlerInRealTime, TimerAndEventTrimUntilDeInitialize)
{
    const CImportPatch trim("SetProcessWorkingSetSize", &CountingTrim);
    ASSERT_TRUE(trim.IsActive());
    WorkingSetRecord record = Settings();
    record.dwCpuUsageLimit = 0xFFFFFFFF; // What this process really uses is of no interest.
    record.dwCpuUsageDuration = 1;
    s_trims = 0;

    ASSERT_TRUE(m_handler.Initialize(record));
    for (int i = 1; i <= 2; ++i) // The wait stays registered.
    {
        const Basalt::CHandle event = OpenTrimEvent();
        ASSERT_TRUE(event);
        ::SetEvent(event.Get());
        EXPECT_TRUE(Reaches(s_trims, i));
    }

    record.dwTimerIntervalBase = 1;
    record.dwRandomizationRange = 3;
    record.dwOptimalOccuranceCount = 1000; // No band is found, so that every run trims.
    ASSERT_TRUE(m_handler.Initialize(record));
    EXPECT_TRUE(Reaches(s_trims, 6)); // Four runs of a timer that is armed again after each.

    EXPECT_TRUE(m_handler.DeInitialize());
    const int trims = s_trims;
    EXPECT_FALSE(OpenTrimEvent());
    ::Sleep(20); // Ten times the period: nothing may come any more.
    EXPECT_EQ(s_trims, trims);
}

TEST_F(WorkingSetHandlerInRealTime, TearDownEndsRunningCallbacksAtOnceAndLosesNoHandle)
{
    constexpr int kWarmUp = 10;
    constexpr int kCycles = 50;
    const CImportPatch times("GetProcessTimes", &BusyProcessTimes);
    ASSERT_TRUE(times.IsActive());
    WorkingSetRecord record = Settings();
    record.dwTimerIntervalBase = 1;
    record.dwRandomizationRange = 0;
    std::size_t handles = 0;
    double longest = 0;
    for (int cycle = 0; cycle < kWarmUp + kCycles; ++cycle)
    {
        handles = cycle == kWarmUp ? CountOwnHandles() : handles;
        const bool idle = cycle % 2 == 0; // The timer's run waits for idle; in between both runs measure.
        record.dwCpuUsageDuration = idle ? 1 : 60000;
        s_measured = 0;
        ASSERT_TRUE(m_handler.Initialize(record));
        const Basalt::CHandle event = OpenTrimEvent();
        ::SetEvent(event.Get());
        ASSERT_TRUE(Reaches(s_measured, idle ? 4 : 2));

        const Basalt::CStopwatch watch;
        EXPECT_TRUE(m_handler.DeInitialize());
        longest = std::max(longest, watch.Seconds());
    }
    EXPECT_LT(longest, 2.0); // The waits themselves are a minute long.
    EXPECT_LE(CountOwnHandles(), handles + kCycles / 4);
}

} // namespace
