#include "logging/Log.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"log_tests";

TEST(Log, ReachesTheSessionWithAllThatTheCallSiteKnows)
{
    const CLogCapture capture;

    TX_LOG(LogError, L"CClass::Method", L"Error 0x%08X on '%s'", 5, std::wstring(L"key"));
    const DWORD line = __LINE__ - 1;

    const std::vector<LogLine> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, DWORD{LogError});
    EXPECT_EQ(lines[0].source, L"log_tests");
    EXPECT_EQ(lines[0].function, L"CClass::Method");
    EXPECT_EQ(lines[0].line, line);
    EXPECT_EQ(lines[0].message, L"Error 0x00000005 on 'key'");
}

} // namespace
