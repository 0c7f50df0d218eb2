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

    EXPECT_EQ(Basalt::GetFileVersion(BesideTest(L"TxSvHost.exe"), version), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(version.major, 6);
    EXPECT_EQ(version.minor, 3);
    EXPECT_EQ(version.build, 3036);
    EXPECT_EQ(version.revision, 0);
    EXPECT_NE(Basalt::GetFileVersion(BesideTest(L"missing.dll"), version), DWORD{ERROR_SUCCESS});
    EXPECT_NE(Basalt::GetFileVersion(BesideTest(L"base_tests.exe"), version), DWORD{ERROR_SUCCESS});

    const CImportPatch noLoad(
        "LoadLibraryExW", +[](const wchar_t*, HANDLE, DWORD) -> HMODULE {
            ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        });
    EXPECT_EQ(Basalt::GetFileVersion(BesideTest(L"TxSvHost.exe"), version), DWORD{ERROR_NOT_ENOUGH_MEMORY});

    EXPECT_EQ(Basalt::GetWindowsVersion(version), DWORD{ERROR_SUCCESS});
    EXPECT_GE(version.major, 6);
}

BOOL WINAPI Refuse(LARGE_INTEGER* /*value*/)
{
    return FALSE;
}

TEST(Stopwatch, SaysMinusOneWhenAReadingOrTheFrequencyIsMissing)
{
    const Basalt::CStopwatch good;
    EXPECT_GE(good.Seconds(), 0.0);
    {
        const CImportPatch patch("QueryPerformanceFrequency", &Refuse);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(Basalt::CStopwatch().Seconds(), -1.0);
    }
    const CImportPatch patch("QueryPerformanceCounter", &Refuse);
    ASSERT_TRUE(patch.IsActive());
    EXPECT_EQ(good.Seconds(), -1.0);
}

} // namespace
