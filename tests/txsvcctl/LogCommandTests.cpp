#include <windows.h>

#include <nlohmann/json.hpp>

#include "CtlTest.h"
#include "base/ObfuscatedRegKey.h"
#include "control/RegistryLink.h"
#include "logging/LogSettings.h"
#include "support/Narrow.h"

using nlohmann::json;

namespace
{

const std::wstring kLogPath = std::wstring(kProductKey32) + L"\\Logging";

class LogCommandTest : public CtlTest
{
protected:
    static json GetAsJson()
    {
        const CtlResult result = Run({L"log", L"get", L"--json"});
        EXPECT_EQ(result.exitCode, 0) << Narrow(result.error);
        return json::parse(Narrow(result.out));
    }
};

TEST_F(LogCommandTest, WhatIsSetIsWhatTheLoggerReadsAndGetShows)
{
    const struct
    {
        const wchar_t* name;
        const wchar_t* value;
        const wchar_t* shown;
    } table[] = {
        {L"mechanism", L"file", L"file"},
        {L"level", L"1", L"1"},
        {L"level", L"6", L"6"},
        {L"fields", L"all", L"all"},
        {L"fields", L"none", L"none"},
        {L"fields", L"tag,process,source,function", L"all"},
        {L"Fields", L"function,Process", L"process,function"},
        {L"folder", L"d:/logs/../x y", L"d:\\x y"},
        {L"folder", L"\\\\server\\share\\\u00e4", L"\\\\server\\share\\\u00e4"},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(Narrow(row.value));
        const CtlResult set = Run({L"log", L"set", row.name, row.value});
        const CtlResult get = Run({L"log", L"get", row.name});
        EXPECT_EQ(set.exitCode, 0) << Narrow(set.error);
        EXPECT_EQ(get.out.substr(11), std::wstring(row.shown) + L"\n") << Narrow(get.out);
    }
    const ETWLogging::LogSettings settings = ETWLogging::ReadLogSettings(); // Through the link.
    EXPECT_EQ(ETWLogging::ReadLogMechanism(), ETWLogging::kFileMechanism);
    EXPECT_EQ(settings.threshold, DWORD{6});
    EXPECT_EQ(settings.options, DWORD{ETWLogging::LogOptionProcess | ETWLogging::LogOptionFunction});
    EXPECT_EQ(settings.folder, L"\\\\server\\share\\\u00e4");

    EXPECT_EQ(Run({L"log", L"set", L"mechanism", L"events"}).exitCode, 0);
    EXPECT_EQ(ETWLogging::ReadLogMechanism(), DWORD{2});
}

TEST_F(LogCommandTest, WrongSettingsAreUsageErrorsAndStoreNothing)
{
    const std::vector<std::vector<std::wstring>> table = {
        {L"mechanism", L"files"},
        {L"mechanism", L""},
        {L"level", L"0"},
        {L"level", L"7"},
        {L"level", L"x"},
        {L"level", L"10"},
        {L"fields", L""},
        {L"fields", L"tag,"},
        {L"fields", L"tag,none"},
        {L"fields", L"tags"},
        {L"folder", L"logs"},
        {L"folder", L"\\logs"},
        {L"folder", L"C:logs"},
        {L"folder", L"C:\\a?b"},
        {L"threshold", L"1"},
    };
    for (const std::vector<std::wstring>& row : table)
    {
        SCOPED_TRACE(Narrow(row[0] + L" " + row[1]));
        EXPECT_EQ(Run({L"log", L"set", row[0], row[1]}).exitCode, 2);
    }
    EXPECT_EQ(Run({L"log", L"get", L"threshold"}).exitCode, 2);
    EXPECT_FALSE(HasKey(kProductKey32));
}

TEST_F(LogCommandTest, UnusableValuesAreShownAsSuchWithTheDefaultThatApplies)
{
    Basalt::CObfuscatedRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, kLogPath.c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(key.WriteDword(ETWLogging::kMechanismSetting.name, 7), DWORD{0});
    ASSERT_EQ(key.WriteString(ETWLogging::kOptionsSetting.name, L"a number is wanted"), DWORD{0});
    Write(kLogPath, ETWLogging::kFolderSetting.name, L"C:\\plain");

    const json first = GetAsJson();
    ASSERT_EQ(key.WriteDword(ETWLogging::kLevelSetting.name, 4), DWORD{0});
    ASSERT_EQ(key.WriteDword(ETWLogging::kOptionsSetting.name, 0x1000), DWORD{0});
    ASSERT_EQ(key.WriteString(ETWLogging::kFolderSetting.name, L"relative"), DWORD{0});
    const BYTE cut[] = {'T', 'X', 'O', '1'};
    ASSERT_EQ(::RegSetValueExW(key.Get(), ETWLogging::kMechanismSetting.name, 0, REG_BINARY, cut, sizeof(cut)), 0);
    const json second = GetAsJson();

    const auto setting = [](const char* value, const char* state) {
        return json({{"value", value}, {"state", state}});
    };
    EXPECT_EQ(first["mechanism"], setting("events", "invalid"));
    EXPECT_EQ(first["level"], setting("3", "missing"));
    EXPECT_EQ(first["fields"], setting("tag", "damaged"));
    EXPECT_EQ(first["folder"], setting("%ProgramData%\\Tarvex\\Log", "plain"));
    EXPECT_EQ(second["mechanism"], setting("events", "damaged"));
    EXPECT_EQ(second["level"], setting("4", "set"));
    EXPECT_EQ(second["fields"], setting("tag", "invalid"));
    EXPECT_EQ(second["folder"], setting("%ProgramData%\\Tarvex\\Log", "invalid"));
    EXPECT_NE(Run({L"log", L"get"}).out.find(L"damaged"), std::wstring::npos);
}

} // namespace
