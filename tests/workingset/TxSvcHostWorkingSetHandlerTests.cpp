#include "workingset/TxSvcHostWorkingSetHandler.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "contract/WorkingSetEvent.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"

namespace
{

WorkingSetRecord Settings(DWORD base = 600000, DWORD range = 600000)
{
    // No limit of the CPU usage and no band that could be found: every run trims.
    return {1, 0, 0xFFFFFFFF, 1, base, range, 30, 0, 0x500000, 1000, 60000};
}

Basalt::CHandle OpenTrimEvent()
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    return Basalt::CHandle(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
}

const HANDLE kQueue = LongToHandle(0x11), kWait = LongToHandle(0x22);

CTxSvcHostWorkingSetHandler* s_handler;
std::string s_calls;   ///< In their order; those that wait for callbacks end with "!".
std::string s_failing; ///< This one fails.
DWORD s_due;
UINT_PTR s_timer; ///< The newest one.
int s_random;
void (*s_whileDrawing)();

struct WorkingSetHandlerTest : ::testing::Test
{
    WorkingSetHandlerTest()
    {
        s_random = 0;
        s_failing.clear();
        s_calls.clear();
    }

    static BOOL Note(const std::string& call, bool isRight = true, HANDLE done = nullptr)
    {
        const std::string name = call + (done == INVALID_HANDLE_VALUE ? "!" : "");
        s_calls += " " + name + (isRight ? "" : "?");
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return name != s_failing;
    }
    static BOOL WINAPI EndQueue(HANDLE queue, HANDLE done)
    {
        return Note("-queue", queue == kQueue && MayCallbacksEnd(), done);
    }
    static BOOL WINAPI Register(HANDLE* wait, HANDLE, WAITORTIMERCALLBACK, void*, ULONG, ULONG)
    {
        return *wait = kWait, Note("wait");
    }
    static BOOL WINAPI EndWait(HANDLE wait, HANDLE done)
    {
        return Note("-wait", wait == kWait && MayCallbacksEnd(), done);
    }
    static BOOL WINAPI Arm(HANDLE* timer, HANDLE queue, WAITORTIMERCALLBACK, void*, DWORD due, DWORD, ULONG)
    {
        *timer = reinterpret_cast<HANDLE>(++s_timer);
        s_due = due;
        return Note("timer", queue == kQueue);
    }
    static BOOL WINAPI EndTimer(HANDLE queue, HANDLE timer, HANDLE done)
    {
        return Note("-timer", queue == kQueue && timer == reinterpret_cast<HANDLE>(s_timer), done);
    }
    /// Whoever waits for them has told them to stop and lets them have the lock: one here cancels the timer.
    static bool MayCallbacksEnd()
    {
        std::thread([] { EXPECT_TRUE(s_handler->cancelWsTimer(false)); }).join();
        return s_handler->IsStopRequested();
    }
    static int Draw()
    {
        const auto hook = std::exchange(s_whileDrawing, nullptr);
        return hook != nullptr ? hook() : void(), s_random;
    }

    CFakeTrace m_log;
    CImportPatch m_patches[7] = {
        {"CreateTimerQueue", +[] { return Note("queue") ? kQueue : nullptr; }},
        {"DeleteTimerQueueEx", &EndQueue},
        {"RegisterWaitForSingleObject", &Register},
        {"UnregisterWaitEx", &EndWait},
        {"CreateTimerQueueTimer", &Arm},
        {"DeleteTimerQueueTimer", &EndTimer},
        {"rand", &Draw}};
};

TEST_F(WorkingSetHandlerTest, WhatFailsIsLoggedAndWhatWasMadeIsUndone)
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    std::string all;
    for (const char* failing : {"", "queue", "taken", "wait", "timer"})
    {
        s_failing = failing;
        const Basalt::CHandle taken(
            s_failing == "taken" ? ::CreateEventW(nullptr, FALSE, FALSE, name.data()) : nullptr);
        s_calls.clear();
        CTxSvcHostWorkingSetHandler handler;
        s_handler = &handler;
        EXPECT_EQ(handler.Initialize(Settings()), s_failing.empty());
        EXPECT_EQ(handler.IsStopRequested(), !s_failing.empty());
        EXPECT_TRUE(handler.DeInitialize());
        EXPECT_EQ(static_cast<bool>(OpenTrimEvent()), s_failing == "taken");
        all += s_failing + ":" + s_calls + "\n" + m_log.Take();
    }
    EXPECT_EQ(
        std::regex_replace(all, std::regex(".*de-initializing\n|CTxSvcHostWorkingSetHandler::"), ""),
        R"(: queue wait timer -timer -wait! -queue!
queue: queue
4 Initialize: Failed to initialize timer queue
taken: queue -queue!
4 Initialize: Failed to create working set event (GLE=0x000000B7)
wait: queue wait -queue!
4 Initialize: Failed to register event callback for working set reduction
timer: queue wait timer -wait! -queue!
4 scheduleWsTimer: Failed to register the timer callback
4 Initialize: Failed to register the timer callback
)");
}

TEST_F(WorkingSetHandlerTest, DueTimeSpansTheRangeWithBothEnds)
{
    CTxSvcHostWorkingSetHandler handler;
    s_handler = &handler;
    for (const auto& [base, range, random, due] : std::initializer_list<std::tuple<DWORD, DWORD, int, DWORD>>{
             {600000, 600000, 0, 600000},
             {600000, 600000, 1, 600018}, // 18.3: truncated.
             {0x7FFFFFFF, 0x80000000, 32767, 0xFFFFFFFF}})
    {
        s_random = random;
        EXPECT_TRUE(handler.Initialize(Settings(base, range)));
        EXPECT_EQ(s_due, due);
    }
}

TEST_F(WorkingSetHandlerTest, OneTimerIsArmedAtMostAndNoneAfterAStop)
{
    CTxSvcHostWorkingSetHandler handler;
    s_handler = &handler;
    EXPECT_FALSE(handler.scheduleWsTimer()); // No queue yet.
    ASSERT_TRUE(handler.Initialize(Settings()));
    EXPECT_TRUE(handler.scheduleWsTimer());
    EXPECT_EQ(s_calls, " queue wait timer -timer timer"); // Never waiting: may be in a callback.
    s_calls.clear();
    s_whileDrawing = [] { s_handler->scheduleWsTimer(); }; // Another run arms it between two steps.
    EXPECT_TRUE(handler.scheduleWsTimer());
    EXPECT_EQ(s_calls, " -timer timer");
    s_calls.clear();
    ASSERT_TRUE(handler.Initialize(Settings())); // The old timer went with its queue.
    EXPECT_EQ(s_calls, " -timer -wait! -queue! queue wait timer");
    s_calls.clear();
    s_failing = "-timer";
    EXPECT_TRUE(handler.scheduleWsTimer()) << "whatever becomes of the old one";
    s_whileDrawing = [] { s_handler->DeInitialize(); };
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_EQ(s_calls, " -timer timer -timer -wait! -queue!");
}

TEST(WorkingSetHandlerInRealTime, TimerAndEventTrimAgainAndAgain)
{
    static const HANDLE s_trimmed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const CImportPatch trim(
        "SetProcessWorkingSetSize", +[](HANDLE, SIZE_T, SIZE_T) { return ::SetEvent(s_trimmed); });
    CTxSvcHostWorkingSetHandler handler;
    for (int run = 0; run < 6; ++run) // By the event, then by the timer.
    {
        EXPECT_TRUE(run % 3 != 0 || handler.Initialize(Settings(run < 3 ? 600000 : 1, 3)));
        EXPECT_TRUE(run >= 3 || ::SetEvent(OpenTrimEvent().Get()));
        ASSERT_EQ(::WaitForSingleObject(s_trimmed, 30000), DWORD{WAIT_OBJECT_0});
    }
}

} // namespace
