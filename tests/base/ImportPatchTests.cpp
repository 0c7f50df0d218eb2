#include "support/ImportPatch.h"

#include <windows.h>

#include <gtest/gtest.h>

namespace
{

DWORD WINAPI FakeTickCount()
{
    return 42;
}

TEST(ImportPatch, ReplacesAFunctionForItsScopeOnly)
{
    const DWORD before = ::GetTickCount();
    DWORD during = 0;
    {
        const CImportPatch patch("GetTickCount", &FakeTickCount);
        ASSERT_TRUE(patch.IsActive());
        during = ::GetTickCount();
    }

    EXPECT_EQ(during, 42U);
    EXPECT_GE(::GetTickCount(), before);
}

TEST(ImportPatch, IsNotActiveForAFunctionThatIsNotImported)
{
    const CImportPatch patch("NoSuchFunctionInAnyLibrary", &FakeTickCount);

    EXPECT_FALSE(patch.IsActive());
}

} // namespace
