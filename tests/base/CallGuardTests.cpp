#include "base/CallGuard.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <stdexcept>

namespace
{

TEST(CallGuard, ReturnsTrueWhenTheFunctionReturns)
{
    int calls = 0;

    EXPECT_TRUE(Basalt::CallGuarded([&calls] { ++calls; }));
    EXPECT_EQ(calls, 1);
}

TEST(CallGuard, SwallowsCppExceptions)
{
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

DWORD WINAPI OverflowTwice(void* context)
{
    auto* const swallowed = static_cast<int*>(context);
    for (int round = 0; round < 2; ++round)
    {
        if (!Basalt::CallGuarded([] { static_cast<void>(Overflow(0)); }))
        {
            ++*swallowed;
        }
    }
    return 0;
}

TEST(CallGuard, SwallowsHardwareFaultsAndForeignExceptions)
{
    constexpr DWORD kExceptionOfAnotherCppRuntime = 0xE06D7363;

    EXPECT_FALSE(Basalt::CallGuarded([] { *g_nowhere = 1; }));
    EXPECT_FALSE(Basalt::CallGuarded(
        [] { ::RaiseException(kExceptionOfAnotherCppRuntime, EXCEPTION_NONCONTINUABLE, 0, nullptr); }));
    EXPECT_FALSE(Basalt::CallGuarded([] { ::RaiseException(EXCEPTION_INT_DIVIDE_BY_ZERO, 0, 0, nullptr); }));
}

TEST(CallGuard, SwallowsAStackOverflowAgainAndAgain)
{
    // On a thread of its own with a small stack: the guard page must stand again for the second round.
    int swallowed = 0;
    constexpr SIZE_T kStackBytes = 256 * 1024;
    const HANDLE thread = ::CreateThread(
        nullptr, kStackBytes, &OverflowTwice, &swallowed, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ASSERT_NE(thread, nullptr);

    EXPECT_EQ(::WaitForSingleObject(thread, 30000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(swallowed, 2);
    ::CloseHandle(thread);
}

#endif

} // namespace
