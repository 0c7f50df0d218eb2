#include "logging/LogLine.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>

#include "base/Text.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"

using namespace ETWLogging;

namespace
{

WORD s_hour = 0;

void WINAPI FakeGetLocalTime(SYSTEMTIME* time)
{
    *time = {2024, 3, 0, 9, s_hour, 5, 7, 0};
}

TEST(LogLine, HoldsTheFieldsThatTheOptionsChoose)
{
    const std::wstring ids = Basalt::FormatText(L" [PID:   42 TID:%5d]$", ::GetCurrentThreadId());
    const wchar_t* const longFile = L"NoBackslashInThisSourceName.cpp";
    const wchar_t* const longName = L"CClass0123456789::CInner0123456789::Method0123456789";
    const std::wstring cutFile = L" [NoBackslashInThisSou:   12]$";
    const std::wstring cutName = L" [CClass0123456789::CInner0123456789::Meth()]$";
    const std::wstring run = L" [" + std::wstring(30, L' ') + L"CHost::Run()]$";
    using Text = const wchar_t*;
    const std::tuple<DWORD, Text, Text, Text, Text, std::wstring> table[] = {
        {0x00, L"tag", L"f", L"g", L"text", L" text\r\n"},
        {0x10, L"TxSvcHost", L"f", L"g", L"text", L" [      TxSvcHost]$ text\r\n"},
        {0x10, L"ABCDEFGHIJKLMNOPQ", L"f", L"g", L"text", L" [ABCDEFGHIJKLMNO]$ text\r\n"},
        {0x14, L"t", L"f", L"g", L"text", L" [              t]$" + ids + L" text\r\n"},
        {0x0C, L"t", L"C:\\s\\H.cpp", L"g", L"text", ids + L" [               H.cpp:   12]$ text\r\n"},
        {0x28, L"t", longFile, L"CHost::Run", L"text", cutFile + run + L" text\r\n"},
        {0x3C, L"", longFile, longName, L"text", L" " + ids + cutFile + cutName + L" text\r\n"},
        {0x38, L"", nullptr, L"", L"text", L"    text\r\n"}, // Missing values leave their blanks.
        {0x00, L"", L"", L"", L"text\n", L" text\n"},
        {0x00, L"", L"", L"", L"text\r", L" text\r\r\n"},
    };
    const CImportPatch time("GetLocalTime", &FakeGetLocalTime);
    for (const auto& [options, tag, file, function, message, tail] : table)
    {
        SCOPED_TRACE(options);
        std::wstring line;

        EXPECT_EQ(BuildLogLine({options, tag, 42}, file, function, 12, LogError, message, line), 0u);

        EXPECT_EQ(line, L"03/09/2024 12:05:07 AM$ -- (Error)$" + tail);
    }
}

TEST(LogLine, StartsWithTheTimeOnATwelveHourClockAndTheLevel)
{
    const std::tuple<WORD, DWORD, const wchar_t*> table[] = {
        {0, 1, L"03/09/2024 12:05:07 AM$ -- (Normal)$ x\r\n"},
        {1, 2, L"03/09/2024 01:05:07 AM$ -- (Warning)$ x\r\n"},
        {11, 3, L"03/09/2024 11:05:07 AM$ -- (Information)$ x\r\n"},
        {12, 4, L"03/09/2024 12:05:07 PM$ -- (Error)$ x\r\n"},
        {13, 5, L"03/09/2024 01:05:07 PM$ -- (Critical)$ x\r\n"},
        {23, 6, L"03/09/2024 11:05:07 PM$ -- (Information)$ x\r\n"},
    };
    const CImportPatch time("GetLocalTime", &FakeGetLocalTime);
    for (const auto& [hour, level, expected] : table)
    {
        s_hour = hour;
        std::wstring line;

        EXPECT_EQ(BuildLogLine({}, L"", L"", 1, level, L"x", line), 0u);

        EXPECT_EQ(line, expected);
    }
}

} // namespace
