#include "base/CallGuard.h"

#include <windows.h>

#include <cstdint>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>

#include "base/ClassObject.h"
#include "base/Owned.h"

namespace
{

using Basalt::CallGuarded;

#if defined(__clang__) // The other compiler has no structured exception handling.

volatile int* g_nowhere = nullptr;

/// Frames of a page each: Wine ends the thread when a mere call runs into the end of the stack.
DWORD Overflow(DWORD depth)
{
    volatile DWORD frame[1024] = {};
    frame[0] = depth;
    return frame[1] != 0 ? 0 : Overflow(depth + 1) + frame[0]; // Not a tail call: each frame stays.
}

/// On a thread with a small stack of its own: the guard page must stand again for the second round.
DWORD WINAPI OverflowTwice(void* /*context*/)
{
    for (int round = 0; round < 2; ++round)
    {
        EXPECT_FALSE(CallGuarded([] { static_cast<void>(Overflow(0)); }));
    }
    return 2;
}

#endif

TEST(CallGuard, SwallowsExceptionsHardwareFaultsAndEachStackOverflow)
{
    int calls = 0;
    DWORD code = 1;
    EXPECT_TRUE(CallGuarded([&calls] { ++calls; }, &code));
    EXPECT_TRUE(calls == 1 && code == 0);
    EXPECT_FALSE(CallGuarded([] { throw std::runtime_error("hosted code"); }, &code));
    EXPECT_EQ(code, Basalt::kCppExceptionCode);
#if defined(__clang__)
    EXPECT_FALSE(CallGuarded([] { *g_nowhere = 1; }, &code));
    EXPECT_EQ(code, EXCEPTION_ACCESS_VIOLATION);
    EXPECT_FALSE(CallGuarded(
        [] { ::RaiseException(Basalt::kCppExceptionCode, EXCEPTION_NONCONTINUABLE, 0, nullptr); }));

    const Basalt::CHandle thread(::CreateThread(
        nullptr, SIZE_T{1} << 18, &OverflowTwice, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    DWORD rounds = 0;
    EXPECT_EQ(::WaitForSingleObject(thread.Get(), 30000), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(::GetExitCodeThread(thread.Get(), &rounds));
    EXPECT_EQ(rounds, 2U) << "the thread did not live to its end";
#endif
}

/// What stands where an object should be may be anything.
TEST(ClassObject, AMethodIsFoundOnlyWhereCodeCanBeRun)
{
    static const int s_data = 1;
    const auto nowhere = reinterpret_cast<const void*>(std::uintptr_t{0x10});
    const auto code = reinterpret_cast<const void*>(&::GetTickCount);
    const void* const table[] = {code, &s_data, nullptr, nowhere};
    struct
    {
        const void* table;
    } const object{table}, dead{nullptr}, damaged{nowhere};
    EXPECT_EQ(Basalt::MethodOf(&object, 0), code);
    for (std::size_t slot = 1; slot < std::size(table); ++slot)
    {
        EXPECT_EQ(Basalt::MethodOf(&object, slot), nullptr) << slot;
    }
    const void* const objects[] = {&dead, &damaged, nowhere, nullptr};
    for (const void* const none : objects)
    {
        EXPECT_EQ(Basalt::MethodOf(none, 0), nullptr) << none;
    }
}

} // namespace
