#include "logging/LogSettings.h"

#include <regex>
#include <string>
#include <tuple>

#include "LoggingTest.h"
#include "base/Text.h"
#include "logging/Logging.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

using namespace ETWLogging;

namespace
{

struct LogSettingsTest : LoggingTest
{
    /// s scrambled, p plain, d damaged, t scrambled text, anything else: not at all
    void Store(char how, Text name, DWORD number)
    {
        static_cast<void>(m_settings.DeleteValue(name));
        EXPECT_TRUE(how != 's' || m_settings.WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 't' || m_settings.WriteString(name, L"text") == 0);
        EXPECT_TRUE(how != 'p' || m_key.Key().WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 'd' || m_key.Key().WriteValue(name, REG_BINARY, "TXO1 and then some", 16) == 0);
    }
};

TEST_F(LogSettingsTest, ANumberComesFromTheFileThenTheRegistryThenItsDefault)
{
    // The setting; the file's text; how the registry has which number; what comes of it, whence, what is
    // wrong: d default, r registry, f file.
    const std::tuple<const LogNumberSetting&, const char*, char, DWORD, DWORD, char, std::wstring> rows[] = {
        {kLevelSetting, "", '-', 0, 3, 'd', L""},
        {kLevelSetting, "5", 's', 4, 5, 'f', L""},
        {kLevelSetting, "", 's', 4, 4, 'r', L""},
        {kLevelSetting, "0", 's', 4, 4, 'r', L"Logging Level (log.ini)"},
        {kLevelSetting, "7", 's', 7, 3, 'd', L"Logging Level (log.ini), Logging Level (registry)"},
        {kLevelSetting, "", 'p', 5, 3, 'd', L"Logging Level (registry)"},
        {kLevelSetting, "", 'd', 5, 3, 'd', L"Logging Level (registry)"},
        {kLevelSetting, "", 't', 5, 3, 'd', L"Logging Level (registry)"},
        {kOptionsSetting, "0x3C", '-', 0, 0x3C, 'f', L""},
        {kOptionsSetting, " \"8\" ", '-', 0, 8, 'f', L""},
        {kOptionsSetting, "", 's', 0x3D, 0x10, 'd', L"Logging Options (registry)"},
        {kOptionsSetting, "0x", '-', 0, 0x10, 'd', L"Logging Options (log.ini)"},
        {kMechanismSetting, "4294967295", '-', 0, MAXDWORD, 'f', L""},
        {kMechanismSetting, "4294967296", 's', 1, 1, 'r', L"Logging Mechanism (log.ini)"},
        {kMechanismSetting, "-1", '-', 0, 0, 'd', L"Logging Mechanism (log.ini)"},
        {kMechanismSetting, "1 2", '-', 0, 0, 'd', L"Logging Mechanism (log.ini)"},
        {kOldFilesSetting, "100", 's', 99, 99, 'r', L"Logging Old Files (log.ini)"}};
    for (const auto& [setting, text, how, stored, expected, origin, problems] : rows)
    {
        SCOPED_TRACE(testing::Message() << "'" << text << "' " << how << stored);
        WriteIni(Narrow(setting.name) + "=" + text);
        Store(how, setting.name, stored);
        CLogSettingsReader reader;
        DWORD number = 0;
        EXPECT_EQ("drf"[static_cast<int>(reader.ReadNumber(setting, number))], origin);
        EXPECT_EQ(number, expected);
        EXPECT_EQ(reader.Problems(), problems);
    }
}

TEST_F(LogSettingsTest, ATextIsTakenWhenItFitsItsUse)
{
    const std::tuple<const LogTextSetting&, Text, bool> rows[] = {
        {kFolderSetting, L"D:\\Logs of a length that needs memory of its own", true},
        {kFolderSetting, L"\\\\server\\share", true},
        {kFolderSetting, L"D:Logs", false},
        {kFolderSetting, L"D:\\a?b", false},
        {kFolderSetting, L"\\\\\\", false},
        {kFolderSetting, L"Logs\\here", false},
        {kFileSetting, L"host.log", true},
        {kFileSetting, L"host", false},
        {kFileSetting, L".log", false},
        {kFileSetting, L"host.", false},
        {kFileSetting, L"..\\host.log", false},
        {kFileSetting, L"host.log:stream", false},
        {kTagSetting, L"Host one", true},
        {kTagSetting, L"a$b", false}};
    for (const auto& [setting, text, isUsable] : rows)
    {
        const std::wstring given = text;
        const CNoMemory noMemory; // Asked in a running host, which it must not end.
        EXPECT_EQ(setting.isValid(given), isUsable) << Narrow(given);
    }
}

TEST_F(LogSettingsTest, AllOfThemAreReadAndWhatCannotBeUsedIsNamed)
{
    WriteIni(
        "Logging Mechanism=1\r\nLogging Level=2\r\nLogging Options=4\r\nLogging Entries=6\r\n"
        "Logging Old Files=7\r\nLogging Mutex=0\r\nLogging Tag=a$b\r\nLogging Folder=D:\\Logs\\\\\r\n"
        "Controller Path WSS=" +
        std::string(1100, 'x'));
    EXPECT_EQ(m_settings.WriteString(kTagSetting.name, L"tag"), 0U);
    EXPECT_EQ(m_settings.WriteString(kFileSetting.name, L"f"), 0U);
    const LogSettings read = ReadLogSettings();
    EXPECT_EQ(
        Basalt::FormatText(
            L"%u %u %u %u %u %d %s %s %s %s",
            read.mechanism,
            read.threshold,
            read.options,
            read.entriesPerFile,
            read.oldFiles,
            read.useMutex,
            read.tag.c_str(),
            read.folder.c_str(),
            read.fileName.c_str(),
            read.problems.c_str()),
        L"1 2 4 6 7 0 tag D:\\Logs  Logging Tag (log.ini), Logging File (registry), Controller Path WSS "
        L"(log.ini)");
    EXPECT_EQ(ReadLogMechanism(), 1U);
    s_program = L"C:\\" + std::wstring(1000, L'x') + L"\\host.exe";
    EXPECT_EQ(LogIniPath(), L"C:\\" + std::wstring(1000, L'x') + L"\\log.ini");
}

TEST_F(LogSettingsTest, AFileThatIsNoTextCountsAsAbsentAndIsReported)
{
    const std::string good = "[Logging]\r\nLogging Level=5\r\n";
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
        {"held", 4, L"error 32 (log.ini)"}};
    Store('s', kLevelSetting.name, 4);
    for (const auto& [bytes, expected, problems] : rows)
    {
        SCOPED_TRACE(bytes);
        WriteBytes(m_ini, bytes);
        const Basalt::CFile held(
            bytes == "held"
                ? ::CreateFileW(m_ini.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                : INVALID_HANDLE_VALUE);
        EXPECT_EQ(ReadLogSettings().threshold, expected);
        EXPECT_EQ(ReadLogSettings().problems, problems);
    }
}

/// Waits for the watching thread: nothing tells when it has been.
template <typename Condition>
bool Becomes(Condition condition)
{
    for (int i = 0; i < 3000 && !condition(); ++i)
    {
        ::Sleep(10);
    }
    return condition();
}

TEST_F(LogSettingsTest, AChangeInEitherPlaceTakesEffectInARunningLogger)
{
    Store('s', kOptionsSetting.name, 0x3D);
    CLogging logger;
    logger.Initialize(L"watched", 0, nullptr, 0);
    logger.SetFolder(m_folder.File(L"log").c_str());
    logger.Activate();
    const auto threshold = [&logger](DWORD expected) {
        return Becomes([&] { return logger.GetThreshold() == expected; });
    };
    Store('s', kLevelSetting.name, 4);
    EXPECT_TRUE(threshold(4));
    WriteIni("Logging Level=5");
    EXPECT_TRUE(threshold(5));
    WriteIni("Logging Level=2\r\nLogging Options=4\r\nLogging Entries=1\r\nLogging Folder=X");
    EXPECT_TRUE(threshold(2));
    EXPECT_TRUE(Becomes([&logger] { return logger.GetOptions() == 4; }));
    ASSERT_TRUE(::DeleteFileW(m_ini.c_str()));
    EXPECT_TRUE(threshold(4));
    m_settings.Close();
    m_key.Remove();
    EXPECT_TRUE(threshold(3));
    const CTestKey again(HKEY_LOCAL_MACHINE, kLogSettingsKey); // In the place of a key that is gone.
    EXPECT_EQ(m_settings.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_ALL_ACCESS), 0U);
    Store('s', kLevelSetting.name, 6);
    EXPECT_TRUE(threshold(6));

    // One message when the logger was made, then a full file with the next, and one when the file no longer
    // hid the first.
    std::wstring text;
    for (Text const name : {L"log\\watched.2.log", L"log\\watched.1.log", L"log\\watched.log"})
    {
        text += std::regex_replace(ReadWide(m_folder.File(name)), std::wregex(L".*\\$|\r"), L"");
    }
    EXPECT_EQ(Narrow(text), R"()");
}

} // namespace
