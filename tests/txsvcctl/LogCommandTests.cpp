#include <windows.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "CtlTest.h"
#include "base/ObfuscatedRegKey.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "logging/settings/LogProperties.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

using nlohmann::json;

namespace
{

const std::wstring kLogPath = std::wstring(Contract::kProductKey32) + L"\\Logging";

struct LogCommandTest : CtlTest
{
    CDataFolder m_data;
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
        {L"entries", L"0", L"0"},
        {L"old-files", L"99", L"99"},
        {L"mutex", L"off", L"off"},
        {L"tag", L"Host one", L"Host one"},
        {L"file", L"host.log", L"host.log"},
        {L"controller:WSS", L"c:\\x\\c.dll", L"c:\\x\\c.dll"},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(Narrow(row.value));
        const CtlResult set = Run({L"log", L"set", row.name, row.value});
        const CtlResult get = Run({L"log", L"get", row.name});
        EXPECT_EQ(set.exitCode, 0) << Narrow(set.error);
        EXPECT_EQ(get.out.substr(16), std::wstring(row.shown) + L" (registry)\n") << Narrow(get.out);
    }
    const ETWLogging::LogSettings settings = ETWLogging::ReadLogSettings(); // Through the link.
    EXPECT_EQ(settings.mechanism, ETWLogging::kFileMechanism);
    EXPECT_EQ(settings.threshold, DWORD{6});
    EXPECT_EQ(settings.options, DWORD{ETWLogging::LogOptionProcess | ETWLogging::LogOptionFunction});
    EXPECT_EQ(settings.folder, L"\\\\server\\share\\\u00e4");
    EXPECT_EQ(settings.entriesPerFile + settings.oldFiles, DWORD{99});
    EXPECT_FALSE(settings.useMutex);
    EXPECT_EQ(settings.tag + settings.fileName, L"Host onehost.log");
    std::wstring controller;
    EXPECT_TRUE(ETWLogging::LogProperties().GetControllerPath(L"WSS", controller));
    EXPECT_EQ(controller, L"c:\\x\\c.dll");

    const std::wstring folder = m_data.File(L"Tarvex\\Log");
    ASSERT_TRUE(::RemoveDirectoryW(folder.c_str())) << "the tool made it for the hosts";
    std::ofstream(std::filesystem::path(folder)) << "no folder";
    EXPECT_EQ(Run({L"log", L"set", L"mechanism", L"file"}).exitCode, 0) << "another one is configured";
    EXPECT_EQ(Run({L"log", L"set", L"folder", m_data.File(L"TARVEX\\Log\\")}).exitCode, 0) << "the default";
    EXPECT_NE(
        Run({L"log", L"set", L"mechanism", L"file"}).error.find(L"cannot use log folder '" + folder),
        std::wstring::npos);
    EXPECT_EQ(Run({L"log", L"set", L"mechanism", L"events"}).exitCode, 0);
    EXPECT_EQ(ETWLogging::ReadLogMechanism(), DWORD{2});
    EXPECT_NE(Run({L"log", L"unset", L"Level"}).out.find(L"is now 3"), std::wstring::npos);
    EXPECT_NE(Run({L"log", L"unset", L"level"}).out.find(L"was not set"), std::wstring::npos);
}

TEST_F(LogCommandTest, WhatLogIniSaysComesFirstAndIsSaid)
{
    const CTestFolder folder;
    const std::wstring ini = folder.File(L"log.ini");
    ASSERT_TRUE(::WritePrivateProfileStringW(L"Logging", L"Logging Level", L"5", ini.c_str()));
    ASSERT_TRUE(::WritePrivateProfileStringW(L"Logging", L"Logging Mutex", L"2", ini.c_str()));

    const CtlResult set = Run({L"log", L"set", L"level", L"2", L"--ini", ini});

    EXPECT_NE(set.out.find(L"log.ini, which comes first, says level is 5"), std::wstring::npos);
    EXPECT_EQ(ETWLogging::ReadLogSettings().threshold, DWORD{2});
    const json got = json::parse(Narrow(Run({L"log", L"get", L"--json", L"--ini", ini}).out));
    EXPECT_EQ(got["level"], json({{"value", "5"}, {"origin", "log.ini"}}));
    EXPECT_EQ(
        got["mutex"],
        json({{"value", "on"}, {"origin", "default"}, {"unusable", "Logging Mutex (log.ini)"}}));
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
        {L"entries", L"-1"},
        {L"entries", L"100000001"},
        {L"old-files", L"100"},
        {L"mutex", L"1"},
        {L"tag", L"a$b"},
        {L"file", L"a\\b.log"},
        {L"controller:WSS", L"c.dll"},
        {L"controller:", L"C:\\c.dll"},
        {L"threshold", L"1"},
    };
    for (const std::vector<std::wstring>& row : table)
    {
        SCOPED_TRACE(Narrow(row[0] + L" " + row[1]));
        EXPECT_EQ(Run({L"log", L"set", row[0], row[1]}).exitCode, 2);
    }
    EXPECT_EQ(Run({L"log", L"get", L"threshold"}).exitCode, 2);
    EXPECT_FALSE(HasKey(Contract::kProductKey32));
}

TEST_F(LogCommandTest, UnusableValuesAreShownAsSuchWithTheDefaultThatApplies)
{
    Basalt::CObfuscatedRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, kLogPath.c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(key.WriteDword(ETWLogging::kMechanismSetting.name, 7), DWORD{0});
    ASSERT_EQ(key.WriteString(ETWLogging::kOptionsSetting.name, L"a number is wanted"), DWORD{0});
    Write(kLogPath, ETWLogging::kFolderSetting.name, L"C:\\plain");

    const CtlResult result = Run({L"log", L"get", L"--json"});
    ASSERT_EQ(result.exitCode, 0) << Narrow(result.error);
    const json got = json::parse(Narrow(result.out));

    const json bad = {{"value", "tag"}, {"origin", "default"}, {"unusable", "Logging Options (registry)"}};
    EXPECT_EQ(got["mechanism"], json({{"value", "events"}, {"origin", "registry"}}));
    EXPECT_EQ(got["fields"], bad);
    EXPECT_EQ(got["folder"]["unusable"], "Logging Folder (registry)");
    EXPECT_EQ(got["folder"]["value"], "%ProgramData%\\Tarvex\\Log");
    EXPECT_EQ(got["controller:WSS"], json({{"value", "(searched for)"}, {"origin", "default"}}));
    EXPECT_NE(
        Run({L"log", L"get"}).out.find(L"tag (default; cannot be used: Logging Options (registry))"),
        std::wstring::npos);
}

} // namespace
