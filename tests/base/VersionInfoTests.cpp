#include "base/VersionInfo.h"

#include <windows.h>

#include <gtest/gtest.h>

#include "base/Stopwatch.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"

namespace
{

TEST(VersionInfo, ReadsTheVersionsOfTheHostAndOfWindowsAndRefusesOtherFiles)
{
    Basalt::Version version;

    EXPECT_EQ(Basalt::GetFileVersion(BesideTest(L"TxSvHost.exe"), version), 0U);
    EXPECT_TRUE(version.major == 6 && version.minor == 3 && version.build == 3036 && version.revision == 0);
    EXPECT_NE(Basalt::GetFileVersion(BesideTest(L"missing.dll"), version), 0U);
    EXPECT_EQ(Basalt::GetWindowsVersion(version), 0U);
    EXPECT_TRUE(version.major >= 6 && version.build > 1000);
}

LONGLONG g_counter = 100;

TEST(Stopwatch, MeasuresSeconds)
{
    const CImportPatch counter(
        "QueryPerformanceCounter",
        +[](LARGE_INTEGER* value) { return BOOL{(value->QuadPart = g_counter) != 0}; });
    const CImportPatch frequency(
        "QueryPerformanceFrequency", +[](LARGE_INTEGER* value) { return BOOL{(value->QuadPart = 8) != 0}; });
    const Basalt::CStopwatch watch;
    g_counter = 120;
    EXPECT_EQ(watch.Seconds(), 2.5);
}

} // namespace
