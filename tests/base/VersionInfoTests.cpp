#include "base/VersionInfo.h"

#include <windows.h>

#include <fstream>
#include <gtest/gtest.h>

#include "base/Stopwatch.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

namespace
{

TEST(VersionInfo, ReadsTheHostsVersionAndRefusesOtherFiles)
{
    const CTestFolder folder;
    std::ofstream(Narrow(folder.File(L"text.dll"))) << "no module";
    Basalt::Version version;

    EXPECT_EQ(Basalt::GetFileVersion(BesideTest(L"TxSvHost.exe"), version), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(version.major, 6);
    EXPECT_EQ(version.minor, 3);
    EXPECT_EQ(version.build, 3036);
    EXPECT_EQ(version.revision, 0);
    EXPECT_NE(Basalt::GetFileVersion(folder.File(L"text.dll"), version), DWORD{ERROR_SUCCESS});
    EXPECT_NE(Basalt::GetFileVersion(folder.File(L"missing.dll"), version), DWORD{ERROR_SUCCESS});
}

TEST(VersionInfo, KnowsTheRunningWindows)
{
    Basalt::Version version;

    EXPECT_EQ(Basalt::GetWindowsVersion(version), DWORD{ERROR_SUCCESS});
    EXPECT_GE(version.major, 6);
}

BOOL WINAPI NoFrequency(LARGE_INTEGER* /*frequency*/)
{
    return FALSE;
}

BOOL WINAPI NoCounter(LARGE_INTEGER* /*counter*/)
{
    return FALSE;
}

TEST(Stopwatch, SaysMinusOneWhenAReadingOrTheFrequencyIsMissing)
{
    const Basalt::CStopwatch good;
    EXPECT_GE(good.Seconds(), 0.0);
    {
        const CImportPatch patch("QueryPerformanceFrequency", &NoFrequency);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(Basalt::CStopwatch().Seconds(), -1.0);
    }
    const CImportPatch patch("QueryPerformanceCounter", &NoCounter);
    ASSERT_TRUE(patch.IsActive());
    EXPECT_EQ(good.Seconds(), -1.0);
}

} // namespace
