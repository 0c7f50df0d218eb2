#include "logging/settings/LogSettingsReader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#include "logging/text/TextLogger.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

using Text = const wchar_t*;
constexpr auto kFromDefault = LogSettingOrigin::Default;
constexpr auto kFromRegistry = LogSettingOrigin::Registry;
constexpr auto kFromFile = LogSettingOrigin::IniFile;

void WriteFileBytes(const std::wstring& path, const std::string& bytes)
{
    std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

std::string Ini(const std::wstring& name, const std::string& value)
{
    return "[Logging]\r\n" + std::string(name.begin(), name.end()) + "=" + value + "\r\n";
}

struct LogSettingsTest : ::testing::Test
{
    LogSettingsTest()
    {
        EXPECT_EQ(m_scrambled.Open(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_ALL_ACCESS), 0u);
    }

    /// s scrambled, p plain, d damaged, t scrambled text, anything else: not at all
    void Store(char how, Text name, DWORD number)
    {
        static_cast<void>(m_scrambled.DeleteValue(name));
        EXPECT_TRUE(how != 's' || m_scrambled.WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 't' || m_scrambled.WriteString(name, L"text") == 0);
        EXPECT_TRUE(how != 'p' || m_key.Key().WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 'd' || m_key.Key().WriteValue(name, REG_BINARY, "TXO1 and then some", 16) == 0);
    }

    CTestKey m_key{HKEY_LOCAL_MACHINE, Contract::kLoggingKey};
    Basalt::CObfuscatedRegKey m_scrambled;
    CTestFolder m_folder;
    const std::wstring m_ini = m_folder.File(L"log.ini");
};

TEST_F(LogSettingsTest, ANumberComesFromTheFileThenTheRegistryThenItsDefault)
{
    // The setting; the file's text; how the registry has which number; what comes of it, whence, what is
    // wrong.
    const std::tuple<const LogNumberSetting&, const char*, char, DWORD, DWORD, LogSettingOrigin, Text>
        rows[] = {
            {kLevelSetting, "", '-', 0, 3, kFromDefault, L""},
            {kLevelSetting, "5", 's', 4, 5, kFromFile, L""},
            {kLevelSetting, "", 's', 4, 4, kFromRegistry, L""},
            {kLevelSetting, "0", 's', 4, 4, kFromRegistry, L"Logging Level (log.ini)"},
            {kLevelSetting,
             "7",
             's',
             7,
             3,
             kFromDefault,
             L"Logging Level (log.ini), Logging Level (registry)"},
            {kLevelSetting, "", 'p', 5, 3, kFromDefault, L"Logging Level (registry)"},
            {kLevelSetting, "", 'd', 5, 3, kFromDefault, L"Logging Level (registry)"},
            {kLevelSetting, "", 't', 5, 3, kFromDefault, L"Logging Level (registry)"},
            {kOptionsSetting, "0x3C", '-', 0, 0x3C, kFromFile, L""},
            {kOptionsSetting, " \"8\" ", '-', 0, 8, kFromFile, L""},
            {kOptionsSetting, "", 's', 0x3D, 0x10, kFromDefault, L"Logging Options (registry)"},
            {kOptionsSetting, "0x", '-', 0, 0x10, kFromDefault, L"Logging Options (log.ini)"},
            {kMechanismSetting, "4294967295", '-', 0, MAXDWORD, kFromFile, L""},
            {kMechanismSetting, "4294967296", 's', 1, 1, kFromRegistry, L"Logging Mechanism (log.ini)"},
            {kMechanismSetting, "-1", '-', 0, 0, kFromDefault, L"Logging Mechanism (log.ini)"},
            {kMechanismSetting, "1 2", '-', 0, 0, kFromDefault, L"Logging Mechanism (log.ini)"},
            {kEntriesSetting, "0", '-', 0, 0, kFromFile, L""},
            {kOldFilesSetting, "100", 's', 99, 99, kFromRegistry, L"Logging Old Files (log.ini)"},
            {kMutexSetting, "", 's', 2, 1, kFromDefault, L"Logging Mutex (registry)"},
        };
    for (const auto& [setting, text, how, stored, expected, origin, problems] : rows)
    {
        SCOPED_TRACE(testing::Message() << "'" << text << "' " << how << stored);
        WriteFileBytes(m_ini, Ini(setting.name, text));
        Store(how, setting.name, stored);
        CLogSettingsReader reader(m_ini);
        DWORD number = 0;

        EXPECT_EQ(reader.ReadNumber(setting, number), origin);

        EXPECT_EQ(number, expected);
        EXPECT_EQ(reader.Problems(), problems);
    }
}

TEST_F(LogSettingsTest, ATextIsTakenWhenItFitsItsUse)
{
    const std::tuple<const LogTextSetting&, const char*, bool> rows[] = {
        {kFolderSetting, "D:\\Logs", true},
        {kFolderSetting, "\\\\server\\share", true},
        {kFolderSetting, "D:Logs", false},
        {kFolderSetting, "D:\\a?b", false},
        {kFolderSetting, "\\\\\\", false},
        {kFolderSetting, "Logs\\here", false},
        {kFileSetting, "host.log", true},
        {kFileSetting, "host", false},
        {kFileSetting, ".log", false},
        {kFileSetting, "host.", false},
        {kFileSetting, "..\\host.log", false},
        {kFileSetting, "host.log:stream", false},
        {kTagSetting, "Host one", true},
        {kTagSetting, "a$b", false},
    };
    for (const auto& [setting, text, isUsable] : rows)
    {
        SCOPED_TRACE(text);
        const std::wstring wide(text, text + std::string(text).size());
        WriteFileBytes(m_ini, Ini(setting.name, text));
        std::wstring found;
        EXPECT_EQ(CLogSettingsReader(m_ini).ReadText(setting, found), isUsable ? kFromFile : kFromDefault);
        EXPECT_EQ(found, isUsable ? wide : L"");

        ASSERT_TRUE(::DeleteFileW(m_ini.c_str()));
        ASSERT_EQ(m_scrambled.WriteString(setting.name, wide), 0u);
        found.clear();
        EXPECT_EQ(
            CLogSettingsReader(m_ini).ReadText(setting, found), isUsable ? kFromRegistry : kFromDefault);
        EXPECT_EQ(m_scrambled.DeleteValue(setting.name), 0u);
    }
    const std::wstring path = L"D:\\more than a string without memory holds";
    const CImportPatch noMemory("malloc", +[](std::size_t) -> void* { return nullptr; });
    EXPECT_TRUE(IsAbsolutePath(path)); // Asked in a running host, which it must not end.
}

TEST_F(LogSettingsTest, AFileThatIsNoTextCountsAsAbsentAndIsReported)
{
    const std::string good = Ini(kLevelSetting.name, "5");
    std::string wide("\xFF\xFE", 2);
    for (const char character : good)
    {
        wide += {character, '\0'};
    }
    const std::tuple<std::string, DWORD, Text> rows[] = {
        {good, 5, L""},
        {wide, 5, L""},
        {wide + "x", 4, L"no text (log.ini)"},
        {good + '\0', 4, L"no text (log.ini)"},
        {"MZ\x90\x01" + good, 4, L"no text (log.ini)"},
        {"\xEF\xBB\xBF" + good, 4, L"no text (log.ini)"},
        {"", 4, L""},
        {"[Other]\r\nLogging Level=5\r\n", 4, L""},
    };
    Store('s', kLevelSetting.name, 4);
    const auto read = [this](DWORD expected, const std::wstring& problems) {
        CLogSettingsReader reader(m_ini);
        DWORD number = 0;
        reader.ReadNumber(kLevelSetting, number);
        EXPECT_EQ(number, expected);
        EXPECT_EQ(reader.Problems(), problems);
    };
    for (const auto& [bytes, expected, problems] : rows)
    {
        SCOPED_TRACE(bytes);
        WriteFileBytes(m_ini, bytes);
        read(expected, problems);
    }
    const Basalt::CFile held(
        ::CreateFileW(m_ini.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    read(4, L"error 32 (log.ini)");
}

/// Waits for the watching thread: nothing tells when it has been.
template <typename Condition>
bool Becomes(Condition condition)
{
    for (int i = 0; i < 500 && !condition(); ++i)
    {
        ::Sleep(10);
    }
    return condition();
}

TEST_F(LogSettingsTest, AChangeInEitherPlaceTakesEffectInARunningLogger)
{
    const std::wstring ini = LogIniPath();
    ASSERT_EQ(ini, BesideTest(L"log.ini"));
    ::DeleteFileW(ini.c_str());
    Store('s', kOptionsSetting.name, 0x3D);
    CLogging logger(ReadLogSettings());
    logger.Initialize(L"watched", 0, nullptr, 0);
    logger.SetFolder(m_folder.Path().c_str());
    logger.Activate();
    const auto threshold = [&logger](DWORD expected) {
        return Becomes([&] { return logger.GetThreshold() == expected; });
    };

    Store('s', kLevelSetting.name, 4);
    EXPECT_TRUE(threshold(4));
    WriteFileBytes(ini, Ini(kLevelSetting.name, "5"));
    EXPECT_TRUE(threshold(5));
    WriteFileBytes(ini, Ini(kLevelSetting.name, "2") + "Logging Options=4\r\nLogging Folder=X\r\n");
    EXPECT_TRUE(threshold(2));
    EXPECT_TRUE(Becomes([&logger] { return logger.GetOptions() == 4; }));
    ASSERT_TRUE(::DeleteFileW(ini.c_str()));
    EXPECT_TRUE(threshold(4));
    m_scrambled.Close();
    m_key.Remove();
    EXPECT_TRUE(threshold(3));
    const CTestKey again(HKEY_LOCAL_MACHINE, Contract::kLoggingKey); // In the place of a key that is gone.
    EXPECT_EQ(m_scrambled.Open(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_ALL_ACCESS), 0u);
    Store('s', kLevelSetting.name, 6);
    EXPECT_TRUE(threshold(6));

    // One message when the logger was made, one with the file, one when the file no longer hid the first.
    std::ifstream file(std::filesystem::path(m_folder.File(L"watched.log")), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    const std::wstring text(reinterpret_cast<Text>(bytes.data()), bytes.size() / sizeof(wchar_t));
    EXPECT_NE(text.find(L"(Warning)$"), text.npos);
    EXPECT_NE(text.find(L"cannot be used: Logging Options (registry)\r\n"), text.npos);
    EXPECT_NE(text.find(L"Logging Folder (log.ini)"), text.npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), L'\n'), 3);
}

} // namespace
