#include "workingset/TxSvcHostWorkingSetHandler.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "contract/WorkingSetEvent.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"

namespace
{

const std::string kEnding =
    "1 CTxSvcHostWorkingSetHandler::DeInitialize: Working set handler de-initializing\n";

WorkingSetRecord Settings(DWORD base = 600000, DWORD range = 600000, DWORD factor = 30)
{
    // No limit of the CPU usage and no band that could be found: every run trims.
    return {1, 0, 0xFFFFFFFF, 1, base, range, factor, 0, 0x500000, 1000, 60000};
}

Basalt::CHandle OpenTrimEvent()
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    return Basalt::CHandle(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
}

const HANDLE kQueue = LongToHandle(0x11), kWait = LongToHandle(0x22);
const auto s_createEvent = RealFunction<decltype(::CreateEventW)>("CreateEventW");
const auto s_close = RealFunction<decltype(::CloseHandle)>("CloseHandle");

HANDLE s_event;
CTxSvcHostWorkingSetHandler* s_handler;
std::string s_calls;   ///< In their order; those that wait for callbacks end with "!".
std::string s_failing; ///< This one fails.
DWORD s_error, s_due;
char* s_timer; ///< The newest one.
int s_random;
void (*s_whileDrawing)();

struct WorkingSetHandlerTest : ::testing::Test
{
    WorkingSetHandlerTest()
    {
        s_error = ERROR_NOT_ENOUGH_MEMORY;
        s_random = 0;
        s_failing.clear();
        s_calls.clear();
    }

    static BOOL Note(const std::string& call, bool isRight, HANDLE done = nullptr)
    {
        const std::string name = call + (done == INVALID_HANDLE_VALUE ? "!" : done ? "?" : "");
        s_calls += " " + name + (isRight ? "" : "?");
        ::SetLastError(s_error);
        return name != s_failing;
    }
    static HANDLE WINAPI CreateEvent(SECURITY_ATTRIBUTES*, BOOL isManual, BOOL isSet, const wchar_t* name)
    {
        const bool works = Note(isManual ? "stop" : "event", !isSet && isManual == (name == nullptr));
        return s_event = works ? s_createEvent(nullptr, isManual, isSet, name) : nullptr;
    }
    static BOOL WINAPI Close(HANDLE handle) { return s_close(handle) && s_failing != "close"; }
    static HANDLE WINAPI MakeQueue() { return Note("queue", true) ? kQueue : nullptr; }
    static BOOL WINAPI EndQueue(HANDLE queue, HANDLE done)
    {
        return Note("-queue", queue == kQueue && MayCallbacksEnd(), done);
    }
    static BOOL WINAPI Register(HANDLE* wait, HANDLE event, WAITORTIMERCALLBACK, void*, ULONG ms, ULONG flags)
    {
        *wait = kWait;
        return Note("wait", event == s_event && ms == INFINITE && flags == 0);
    }
    static BOOL WINAPI EndWait(HANDLE wait, HANDLE done)
    {
        return Note("-wait", wait == kWait && MayCallbacksEnd(), done);
    }
    static BOOL WINAPI
    Arm(HANDLE* timer, HANDLE queue, WAITORTIMERCALLBACK, void*, DWORD due, DWORD period, ULONG flags)
    {
        *timer = ++s_timer;
        s_due = due;
        return Note("timer", queue == kQueue && period + flags == 0);
    }
    static BOOL WINAPI EndTimer(HANDLE queue, HANDLE timer, HANDLE done)
    {
        return Note("-timer", queue == kQueue && timer == s_timer, done);
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
    CImportPatch m_patches[9] = {
        {"CreateEventW", &CreateEvent},
        {"CloseHandle", &Close},
        {"CreateTimerQueue", &MakeQueue},
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
    for (const char* failing :
         {"", "factor", "stop", "queue", "event", "taken", "wait", "timer", "-wait!", "-queue!", "close"})
    {
        s_failing = failing;
        {
            const Basalt::CHandle taken(
                s_failing == "taken" ? s_createEvent(nullptr, FALSE, FALSE, name.data()) : nullptr);
            CTxSvcHostWorkingSetHandler handler;
            s_handler = &handler;
            const bool isGood = handler.Initialize(Settings(1, 1, s_failing == "factor" ? 0 : 30));
            s_calls += isGood ? " |" : " failed";
            EXPECT_EQ(handler.IsStopRequested(), !isGood);
            s_calls += !isGood || handler.DeInitialize() ? "" : " failed";
            EXPECT_EQ(static_cast<bool>(OpenTrimEvent()), s_failing == "taken");
        }
        std::string log = m_log.Take();
        log.erase(log.find(kEnding), kEnding.size()); // Always there.
        all += s_failing + ":" + std::exchange(s_calls, {}) + "\n" + log;
    }
    EXPECT_EQ(all, R"(: stop queue event wait timer | -timer -wait! -queue!
factor: stop failed
2 CTxWorkingSetCallback::init: m_wsLimitFactor invalid (0)
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to initialize working set callback
stop: stop queue event wait -wait! -queue! failed
4 CTxSvcHostWorkingSetHandler::CTxSvcHostWorkingSetHandler: Failed to create the stop event (GLE=0x00000008)
2 CTxSvcHostWorkingSetHandler::scheduleWsTimer: The working set handler is stopped
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to register the timer callback
queue: stop queue failed
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to initialize timer queue
event: stop queue event -queue! failed
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to create working set event (GLE=0x00000008)
taken: stop queue event -queue! failed
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to create working set event (GLE=0x000000B7)
wait: stop queue event wait -queue! failed
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to register event callback for working set reduction
timer: stop queue event wait timer -wait! -queue! failed
4 CTxSvcHostWorkingSetHandler::scheduleWsTimer: Failed to register the timer callback
4 CTxSvcHostWorkingSetHandler::Initialize: Failed to register the timer callback
-wait!: stop queue event wait timer | -timer -wait! -queue!
2 CTxSvcHostWorkingSetHandler::DeInitialize: Failed to unregister wait (GLE=0x00000008)
-queue!: stop queue event wait timer | -timer -wait! -queue!
2 CTxSvcHostWorkingSetHandler::DeInitialize: Failed to delete the timer queue (GLE=0x00000008)
close: stop queue event wait timer | -timer -wait! -queue! failed
4 CTxSvcHostWorkingSetHandler::DeInitialize: CloseHandle failed to close the working set event handle
4 CTxSvcHostWorkingSetHandler::~CTxSvcHostWorkingSetHandler: CloseHandle failed to close the stop event handle
)");
}

TEST_F(WorkingSetHandlerTest, DueTimeSpansTheRangeWithBothEnds)
{
    const std::tuple<DWORD, DWORD, int, DWORD> rows[] = {
        {600000, 600000, 0, 600000},
        {600000, 600000, 32767, 1200000},
        {600000, 600000, 1, 600018}, // 18.3: truncated.
        {600000, 899999, 32766, 1499971},
        {0x7FFFFFFF, 0x80000000, 32767, 0xFFFFFFFF}};
    for (const auto& [base, range, random, due] : rows)
    {
        s_random = random;
        CTxSvcHostWorkingSetHandler handler;
        s_handler = &handler;
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
    EXPECT_EQ(s_calls, " stop queue event wait timer -timer timer"); // Never waiting: may be in a callback.
    s_calls.clear();
    s_whileDrawing = [] { s_handler->scheduleWsTimer(); }; // Another run arms it between two steps.
    EXPECT_TRUE(handler.scheduleWsTimer());
    EXPECT_EQ(s_calls, " -timer timer");
    s_calls.clear();
    ASSERT_TRUE(handler.Initialize(Settings())); // The old timer went with its queue.
    EXPECT_EQ(s_calls, " -timer -wait! -queue! queue event wait timer");

    s_calls.clear();
    m_log.Clear();
    for (const DWORD error : {DWORD{ERROR_IO_PENDING}, DWORD{ERROR_INVALID_PARAMETER}})
    {
        for (const bool isWaiting : {false, true})
        {
            s_failing = isWaiting ? "-timer!" : "-timer";
            s_error = error;
            EXPECT_EQ(handler.cancelWsTimer(isWaiting), error == ERROR_IO_PENDING);
            EXPECT_TRUE(handler.cancelWsTimer(isWaiting)); // There is none any more.
            ASSERT_TRUE(handler.scheduleWsTimer());
        }
    }
    s_failing.clear();
    s_whileDrawing = [] { s_handler->DeInitialize(); };
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_FALSE(handler.scheduleWsTimer());
    EXPECT_EQ(s_calls, " -timer timer -timer! timer -timer timer -timer! timer -timer -wait! -queue!");
    EXPECT_EQ(
        m_log.Take(),
        R"(2 CTxSvcHostWorkingSetHandler::cancelWsTimer: Failed to un-register the callback (GLE=0x00000057)
2 CTxSvcHostWorkingSetHandler::cancelWsTimer: Failed to un-register the callback (GLE=0x00000057)
)" + kEnding +
            R"(1 CTxSvcHostWorkingSetHandler::scheduleWsTimer: The working set handler is stopped
2 CTxSvcHostWorkingSetHandler::scheduleWsTimer: The working set handler is stopped
)");
}

TEST(WorkingSetHandlerInRealTime, TimerAndEventTrimUntilDeInitialize)
{
    static std::atomic<int> s_trims;
    static const HANDLE s_trimmed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const CImportPatch trim(
        "SetProcessWorkingSetSize", +[](HANDLE, SIZE_T, SIZE_T) { return ++s_trims, ::SetEvent(s_trimmed); });
    CTxSvcHostWorkingSetHandler handler;
    for (const DWORD base :
         {600000UL, 1UL}) // By the event alone, then by the timer, armed again after each run.
    {
        s_trims = 0;
        ASSERT_TRUE(handler.Initialize(Settings(base, 3)));
        while (s_trims < 4)
        {
            EXPECT_TRUE(base == 1 || ::SetEvent(OpenTrimEvent().Get())); // The wait stays registered.
            ASSERT_EQ(::WaitForSingleObject(s_trimmed, 30000), DWORD{WAIT_OBJECT_0});
        }
    }
    EXPECT_TRUE(handler.DeInitialize());
}

} // namespace
