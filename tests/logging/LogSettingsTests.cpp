#include <regex>
#include <string>
#include <tuple>

#include "LoggingTest.h"
#include "base/Text.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/settings/LogSettingsWatch.h"
#include "logging/text/TextLogger.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

using namespace ETWLogging;

namespace
{

using LogSettingsTest = LoggingTest;

TEST_F(LogSettingsTest, EachComesFromTheFileThenTheRegistryThenItsDefaultAndWhatCannotBeUsedIsNamed)
{
    WriteIni(
        "Logging Mechanism=4294967295\r\nLogging Level=5\r\nLogging Entries=0x6\r\nLogging Mutex=0\r\n"
        "Logging Tag=a$b\r\nLogging Folder=D:\\Logs\\\\\r\nController Path WSS=" +
        std::string(1023, 'x'));
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 4), 0U);
    EXPECT_EQ(m_settings.WriteString(kOptionsSetting.name, L"4"), 0U);
    EXPECT_EQ(m_key.Key().WriteDword(kOldFilesSetting.name, 7), 0U); // In clear.
    EXPECT_EQ(m_settings.WriteString(kTagSetting.name, L"tag"), 0U);
    EXPECT_EQ(m_settings.WriteString(kFileSetting.name, L"f"), 0U);
    const LogSettings read = ReadLogSettings();
    const std::wstring numbers =
        Basalt::FormatText(L"%u %u %u ", read.mechanism, read.threshold, read.options);
    EXPECT_EQ(
        numbers + Basalt::FormatText(L"%u %u %d", read.entriesPerFile, read.oldFiles, read.useMutex),
        L"4294967295 5 16 6 5 0");
    EXPECT_EQ(read.tag + read.folder + read.fileName, L"tagD:\\Logs");
    EXPECT_EQ(
        read.problems,
        L"Logging Options (registry), Logging Old Files (registry), Logging Tag (log.ini), Logging File "
        L"(registry), Controller Path WSS "
        L"(log.ini)");
    s_program = L"C:\\" + std::wstring(1000, L'x') + L"\\host.exe";
    EXPECT_EQ(LogIniPath(), L"C:\\" + std::wstring(1000, L'x') + L"\\log.ini");
    const std::wstring path = L"D:\\more than a string without memory holds";
    const CNoMemory noMemory;
    EXPECT_TRUE(IsAbsolutePath(path)); // Asked in a running host, which it must not end.
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
        {"\xEF\xBB\xBF" + good, 4, L"no text (log.ini)"},
        {"", 4, L""},
        {"[Other]\r\nLogging Level=5\r\n", 4, L""},
        {"held", 4, L"error 32 (log.ini)"}};
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 4), 0U);
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
    EXPECT_EQ(m_settings.WriteDword(kOptionsSetting.name, 0x3D), 0U);
    CLogging logger(ReadLogSettings());
    logger.Initialize(L"watched", 0, nullptr, 0);
    logger.SetFolder(m_folder.File(L"log").c_str());
    logger.Activate();
    CLogSettingsWatch watch;
    watch.Start(logger, logger.GetSettings());
    const auto threshold = [&logger](DWORD expected) {
        return Becomes([&] { return logger.GetThreshold() == expected; });
    };
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 4), 0U);
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
    const CTestKey again(HKEY_LOCAL_MACHINE, Contract::kLoggingKey); // In the place of a key that is gone.
    EXPECT_EQ(m_settings.Open(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_ALL_ACCESS), 0U);
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 6), 0U);
    EXPECT_TRUE(threshold(6));

    // One message when the logger was made, then a full file with the next, and one when the file no longer
    // hid the first.
    std::wstring text;
    for (const std::wstring name : {L"2", L"1", L""})
    {
        text += name +
                std::regex_replace(
                    ReadWide(m_folder.File(L"log\\watched" + (name.empty() ? name : L"." + name) + L".log")),
                    std::wregex(L".*\\$|\r"),
                    L"");
    }
    EXPECT_EQ(Narrow(text), R"(21 Logging settings that cannot be used: Logging Options (registry)
 Logging settings that cannot be used: Logging Folder (log.ini)
 Logging settings that cannot be used: Logging Options (registry)
)");
}

} // namespace
