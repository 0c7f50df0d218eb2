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
    EXPECT_NE(Basalt::GetFileVersion(BesideTest(L"base_tests.exe"), version), 0U);
    EXPECT_EQ(version.build, 3036);
    EXPECT_EQ(Basalt::GetWindowsVersion(version), 0U);
    EXPECT_TRUE(version.major >= 6 && version.build > 1000);
}

LONGLONG g_counter = 0;
LONGLONG g_frequency = 8;

TEST(Stopwatch, MeasuresSecondsOrSaysMinusOneWhenAReadingOrTheFrequencyIsMissing)
{
    const CImportPatch counter(
        "QueryPerformanceCounter",
        +[](LARGE_INTEGER* value) { return BOOL{(value->QuadPart = g_counter) != 0}; });
    const CImportPatch frequency(
        "QueryPerformanceFrequency",
        +[](LARGE_INTEGER* value) { return BOOL{(value->QuadPart = g_frequency) != 0}; });
    const Basalt::CStopwatch noStart;
    g_counter = 100;
    const Basalt::CStopwatch good;
    g_frequency = 0;
    const Basalt::CStopwatch noFrequency;
    g_counter = 120;
    EXPECT_EQ(good.Seconds(), 2.5);
    EXPECT_TRUE(noStart.Seconds() == -1.0 && noFrequency.Seconds() == -1.0);
    g_counter = 0;
    EXPECT_EQ(good.Seconds(), -1.0);
}

} // namespace
