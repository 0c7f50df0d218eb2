#include "base/CallGuard.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

namespace
{

TEST(CallGuard, TellsWhetherTheFunctionReturnedOrThrew)
{
    int calls = 0;

    EXPECT_TRUE(Basalt::CallGuarded([&calls] { ++calls; }));
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(Basalt::CallGuarded([] { throw std::runtime_error("hosted code"); }));
    EXPECT_FALSE(Basalt::CallGuarded([] { throw 5; }));
}

#if defined(__clang__) // The other compiler has no structured exception handling.

volatile int* g_nowhere = nullptr;

/// Frames of a page each: Wine ends the thread when a mere call runs into the end of the stack.
DWORD Overflow(DWORD depth)
{
    volatile DWORD frame[1024] = {};
    frame[0] = depth;
    return frame[1] != 0 ? 0 : Overflow(depth + 1) + frame[0]; // Not a tail call: each frame stays.
}

TEST(CallGuard, SwallowsHardwareFaultsForeignExceptionsAndEachStackOverflow)
{
    constexpr DWORD kExceptionOfAnotherCppRuntime = 0xE06D7363;
    EXPECT_FALSE(Basalt::CallGuarded([] { *g_nowhere = 1; }));
    EXPECT_FALSE(Basalt::CallGuarded(
        [] { ::RaiseException(kExceptionOfAnotherCppRuntime, EXCEPTION_NONCONTINUABLE, 0, nullptr); }));

    std::thread([] {
        for (int round = 0; round < 2; ++round) // The guard page must stand again for the second one.
        {
            EXPECT_FALSE(Basalt::CallGuarded([] { static_cast<void>(Overflow(0)); }));
        }
    }).join();
}

#endif

} // namespace
