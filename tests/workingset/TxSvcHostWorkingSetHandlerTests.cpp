#include "workingset/TxSvcHostWorkingSetHandler.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#include "base/Stopwatch.h"
#include "contract/WorkingSetEvent.h"
#include "logging/logger/LoggingIf.h"
#include "support/HandleCount.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

using Messages = std::vector<std::wstring>;
const std::wstring kStopped = L"The working set handler is stopped";
const std::wstring kEnding = L"Working set handler de-initializing";

/// By default timers of ten minutes and more: none fires in a test.
WorkingSetRecord Settings(DWORD factor = 30, DWORD base = 600000, DWORD range = 600000)
{
    return {1, 0, 100, 0, base, range, factor, 0, 0x500000, 3, 60000};
}

Basalt::CHandle OpenTrimEvent()
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    return Basalt::CHandle(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
}

HANDLE WINAPI Fail()
{
    return ::SetLastError(ERROR_NOT_ENOUGH_MEMORY), nullptr;
}

const auto s_createTimer = RealFunction<decltype(::CreateTimerQueueTimer)>("CreateTimerQueueTimer");
std::vector<DWORD> s_dueTimes;
std::vector<HANDLE> s_completions;
DWORD s_deleteError;
int s_random;
void (*s_whileDrawing)();
CTxSvcHostWorkingSetHandler* s_handler;

struct WorkingSetHandlerTest : ::testing::Test
{
    WorkingSetHandlerTest() { Clear(), s_handler = &m_handler; }
    void Clear()
    {
        m_log.Clear();
        s_dueTimes.clear();
        s_completions.clear();
        s_deleteError = s_random = 0;
    }

    CLogCapture m_log;
    CTxSvcHostWorkingSetHandler m_handler;
    CImportPatch m_patches[3] = {
        {"CreateTimerQueueTimer",
         +[](HANDLE* timer,
             HANDLE queue,
             WAITORTIMERCALLBACK call,
             void* context,
             DWORD due,
             DWORD period,
             ULONG flags) {
             EXPECT_TRUE(queue != nullptr && period == 0); // Null would be the process's default queue.
             s_dueTimes.push_back(due);
             return s_createTimer(timer, queue, call, context, due, period, flags);
         }},
        {"DeleteTimerQueueTimer",
         +[](HANDLE, HANDLE, HANDLE completion) -> BOOL {
             s_completions.push_back(completion);
             return ::SetLastError(s_deleteError), s_deleteError == 0;
         }},
        {"rand", +[] {
             const auto hook = std::exchange(s_whileDrawing, nullptr);
             hook != nullptr ? hook() : void();
             return s_random;
         }}};
};

TEST_F(WorkingSetHandlerTest, FailedInitializeUndoesWhatWasMadeAndNoMore)
{
    const std::wstring noFactor = L"m_wsLimitFactor invalid (0)",
                       noTimer = L"Failed to register the timer callback";
    const std::wstring noWait = L"Failed to register event callback for working set reduction";
    const std::tuple<const char*, DWORD, Messages> rows[] = {
        {"none", 0, {noFactor, L"Failed to initialize working set callback", kEnding}},
        {"CreateTimerQueue", 30, {L"Failed to initialize timer queue", kEnding}},
        {"CreateEventW", 30, {L"Failed to create working set event (GLE=0x00000008)", kEnding}},
        {"RegisterWaitForSingleObject", 30, {noWait, kEnding}},
        {"CreateTimerQueueTimer", 30, {noTimer, noTimer, kEnding}}};
    for (const auto& [failing, factor, messages] : rows)
    {
        SCOPED_TRACE(failing);
        m_log.Clear();
        const std::size_t handles = CountOwnHandles();
        {
            const CImportPatch patch(failing, &Fail);
            ASSERT_EQ(patch.IsActive(), factor != 0);
            EXPECT_FALSE(m_handler.Initialize(Settings(factor)));
        }
        EXPECT_EQ(m_log.Messages(), messages);
        for (const LogLine& line : m_log.Lines())
        {
            EXPECT_EQ(
                line.level,
                DWORD{
                    line.message == kEnding    ? LogNormal
                    : line.message == noFactor ? LogWarning
                                               : LogError});
        }
        EXPECT_TRUE(m_handler.IsStopRequested());
        EXPECT_FALSE(OpenTrimEvent());
        EXPECT_LE(CountOwnHandles(), handles + 4); // The pool's own.
    }
    {
        const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
        const Basalt::CHandle planted(::CreateEventW(nullptr, TRUE, TRUE, name.data()));
        EXPECT_FALSE(m_handler.Initialize(Settings()));
        EXPECT_TRUE(m_log.Has(LogError, L"Failed to create working set event (GLE=0x000000B7)"));
    }
    EXPECT_TRUE(m_handler.Initialize(Settings()));

    const CImportPatch patch("CreateEventW", &Fail);
    CTxSvcHostWorkingSetHandler handler;
    EXPECT_TRUE(handler.IsStopRequested());
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to create the stop event (GLE=0x00000008)"));
}

TEST_F(WorkingSetHandlerTest, DueTimeSpansTheRangeWithBothEnds)
{
    const std::tuple<DWORD, DWORD, int, DWORD> rows[] = {
        {600000, 600000, 0, 600000},
        {600000, 600000, 32767, 1200000},
        {600000, 600000, 1, 600018}, // 18.3: truncated.
        {600000, 899999, 32766, 1499971},
        {600000, 0, 32767, 600000},
        {0x7FFFFFFF, 0x80000000, 32767, 0xFFFFFFFF}};
    for (const auto& [base, range, random, due] : rows)
    {
        Clear();
        s_random = random;
        EXPECT_TRUE(m_handler.Initialize(Settings(30, base, range)));
        EXPECT_EQ(s_dueTimes, std::vector<DWORD>{due});
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
    EXPECT_EQ(
        s_completions, (std::vector<HANDLE>{nullptr, nullptr})); // Never blocking: may be in a callback.

    // Another run arms the timer between the two steps of this one.
    s_whileDrawing = [] { s_handler->scheduleWsTimer(); };
    EXPECT_TRUE(m_handler.scheduleWsTimer());
    EXPECT_EQ(s_dueTimes.size() * 10 + s_completions.size(), 43U);

    // A new start leaves nothing of the old one: the timer went with its queue.
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    EXPECT_EQ(s_dueTimes.size() * 10 + s_completions.size(), 53U);

    // A stop in between keeps it from being armed.
    m_log.Clear();
    s_whileDrawing = [] { s_handler->DeInitialize(); };
    EXPECT_FALSE(m_handler.scheduleWsTimer());
    EXPECT_EQ(m_log.Messages(), (Messages{kEnding, kStopped}));
    EXPECT_EQ(m_log.Count(LogNormal, kStopped), 1U);
    EXPECT_FALSE(m_handler.scheduleWsTimer());
    EXPECT_EQ(m_log.Count(LogWarning, kStopped), 1U);
    EXPECT_EQ(s_dueTimes.size(), 5U);
}

TEST_F(WorkingSetHandlerTest, CancelPassesOverARunningCallbackAndReportsTheRest)
{
    const std::tuple<bool, DWORD, std::size_t> rows[] = {
        {true, 0, 0}, {false, 0, 0}, {false, ERROR_IO_PENDING, 0}, {true, 87, 1}, {false, 87, 1}};
    for (const auto& [wait, error, failures] : rows)
    {
        ASSERT_TRUE(m_handler.Initialize(Settings()));
        Clear();
        s_deleteError = error;
        EXPECT_EQ(m_handler.cancelWsTimer(wait), failures == 0);
        EXPECT_TRUE(m_handler.cancelWsTimer(wait)); // There is none any more.
        EXPECT_EQ(s_completions, std::vector<HANDLE>{wait ? INVALID_HANDLE_VALUE : nullptr});
        EXPECT_EQ(m_log.Count(LogWarning, L"Failed to un-register the callback (GLE=0x00000057)"), failures);
    }
}

const auto s_unregister = RealFunction<decltype(::UnregisterWaitEx)>("UnregisterWaitEx");
const auto s_deleteQueue = RealFunction<decltype(::DeleteTimerQueueEx)>("DeleteTimerQueueEx");
const auto s_close = RealFunction<decltype(::CloseHandle)>("CloseHandle");

TEST_F(WorkingSetHandlerTest, FailuresOfTheTearDownAreReported)
{
    ASSERT_TRUE(m_handler.Initialize(Settings()));
    {
        // These do it all the same, so that nothing stays behind for the other tests.
        const CImportPatch patches[] = {
            {"UnregisterWaitEx",
             +[](HANDLE wait, HANDLE done) { return s_unregister(wait, done), BOOL{Fail() != nullptr}; }},
            {"DeleteTimerQueueEx",
             +[](HANDLE queue, HANDLE done) { return s_deleteQueue(queue, done), BOOL{Fail() != nullptr}; }},
            {"CloseHandle", +[](HANDLE handle) { return s_close(handle), BOOL{Fail() != nullptr}; }}};
        EXPECT_FALSE(m_handler.DeInitialize());
        const CTxSvcHostWorkingSetHandler unused;
    }
    EXPECT_EQ(m_log.Count(LogWarning, L"Failed to unregister wait (GLE=0x00000008)"), 1U);
    EXPECT_EQ(m_log.Count(LogWarning, L"Failed to delete the timer queue (GLE=0x00000008)"), 1U);
    EXPECT_EQ(m_log.Count(LogError, L"CloseHandle failed to close the working set event handle"), 1U);
    EXPECT_EQ(m_log.Count(LogError, L"CloseHandle failed to close the stop event handle"), 1U);
    EXPECT_TRUE(m_handler.DeInitialize()); // There is nothing left to close.
}

// The rest runs with real timers, events and pool threads.
std::atomic<DWORD> s_count;
const HANDLE s_progress = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);

bool CountReaches(DWORD value)
{
    while (s_count < value && ::WaitForSingleObject(s_progress, 10000) == WAIT_OBJECT_0)
    {
    }
    return s_count >= value;
}

void SetTrimEvent()
{
    const Basalt::CHandle event = OpenTrimEvent();
    EXPECT_TRUE(event && ::SetEvent(event.Get()));
}

TEST(WorkingSetHandlerInRealTime, TimerAndEventTrimUntilDeInitialize)
{
    const CImportPatch trim(
        "SetProcessWorkingSetSize",
        +[](HANDLE, SIZE_T, SIZE_T) { return ++s_count, ::SetEvent(s_progress); });
    CTxSvcHostWorkingSetHandler handler;
    WorkingSetRecord record = Settings();
    record.dwCpuUsageLimit = 0xFFFFFFFF; // What this process really uses is of no interest.
    record.dwCpuUsageDuration = 1;
    record.dwOptimalOccuranceCount = 1000; // No band is found, so that every run trims.
    s_count = 0;
    ASSERT_TRUE(handler.Initialize(record));
    for (const DWORD trims : {1U, 2U}) // The wait stays registered.
    {
        SetTrimEvent();
        EXPECT_TRUE(CountReaches(trims));
    }

    record.dwTimerIntervalBase = 1;
    record.dwRandomizationRange = 3;
    ASSERT_TRUE(handler.Initialize(record));
    EXPECT_TRUE(CountReaches(6)); // Four runs of a timer that is armed again after each.

    EXPECT_TRUE(handler.DeInitialize());
    const DWORD trims = s_count;
    EXPECT_FALSE(OpenTrimEvent());
    ::Sleep(20); // Ten times the period: nothing may come any more.
    EXPECT_EQ(s_count, trims);
}

TEST(WorkingSetHandlerInRealTime, TearDownEndsRunningCallbacksAtOnceAndLosesNoHandle)
{
    constexpr int kWarmUp = 10, kCycles = 50;
    const CImportPatch times(
        "GetProcessTimes", +[](HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user) {
            *kernel = *user = {++s_count, s_count}; // More than 429 s more each time.
            return ::SetEvent(s_progress);
        });
    CTxSvcHostWorkingSetHandler handler;
    WorkingSetRecord record = Settings(30, 1, 0);
    std::size_t handles = 0;
    for (int cycle = 0; cycle < kWarmUp + kCycles; ++cycle)
    {
        handles = cycle == kWarmUp ? CountOwnHandles() : handles;
        const bool idle = cycle % 2 == 0; // The timer's run waits for idle; in between both runs measure.
        record.dwCpuUsageDuration = idle ? 1 : 60000;
        s_count = 0;
        ASSERT_TRUE(handler.Initialize(record));
        SetTrimEvent();
        ASSERT_TRUE(CountReaches(idle ? 4 : 2));

        const Basalt::CStopwatch watch;
        EXPECT_TRUE(handler.DeInitialize());
        EXPECT_LT(watch.Seconds(), 2.0); // The waits themselves are a minute long.
    }
    EXPECT_LE(CountOwnHandles(), handles + kCycles / 4);
}

} // namespace
