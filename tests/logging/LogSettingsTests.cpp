#include <regex>
#include <string>
#include <tuple>

#include "LoggingTest.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/settings/LogSettingsWatch.h"
#include "logging/text/TextLogger.h"
#include "support/Narrow.h"

using namespace ETWLogging;

namespace
{

using LogSettingsTest = LoggingTest;

TEST_F(LogSettingsTest, EachIsReadAndWhatIsTooLongOrInClearIsNamed)
{
    WriteIni(
        "Logging Folder=D:\\Logs\\\\\r\nLogging Tag=tag\r\nLogging File=f.log\r\nLogging Mutex=0\r\n"
        "Logging Entries=0x6\r\nController Path WSS=" +
        std::string(1023, 'x'));
    EXPECT_EQ(m_key.Key().WriteDword(kOldFilesSetting.name, 7), 0U); // In clear.
    const LogSettings read = ReadLogSettings();
    EXPECT_EQ(read.folder + read.tag + read.fileName, L"D:\\Logstagf.log");
    EXPECT_EQ(read.entriesPerFile, 6U);
    EXPECT_EQ(read.oldFiles, kDefaultOldFiles);
    EXPECT_FALSE(read.useMutex);
    EXPECT_EQ(read.problems, L"Logging Old Files (registry), Controller Path WSS (log.ini)");
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
        {wide, 5, L""},
        {wide + "x", 4, L"no text (log.ini)"},
        {good + '\0', 4, L"no text (log.ini)"},
        {"\xEF\xBB\xBF" + good, 4, L"no text (log.ini)"},
        {"held", 4, L"error 32 (log.ini)"},
        {good + "; an editor has it open", 5, L""}};
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 4), 0U);
    for (const auto& [bytes, expected, problems] : rows)
    {
        SCOPED_TRACE(bytes);
        WriteBytes(m_ini, bytes);
        const bool isOpen = bytes.ends_with("open");
        const Basalt::CFile held(
            bytes == "held" || isOpen ? ::CreateFileW(
                                            m_ini.c_str(),
                                            isOpen ? GENERIC_WRITE : GENERIC_READ,
                                            isOpen ? FILE_SHARE_READ | FILE_SHARE_WRITE : 0,
                                            nullptr,
                                            OPEN_EXISTING,
                                            0,
                                            nullptr)
                                      : INVALID_HANDLE_VALUE);
        EXPECT_EQ(ReadLogSettings().threshold, expected);
        EXPECT_EQ(ReadLogSettings().problems, problems);
    }
}

/// Waits for the watching thread: nothing tells when it has been.
bool Becomes(const CLogging& logger, DWORD threshold, DWORD options = kDefaultOptions)
{
    const auto is = [&] { return logger.GetThreshold() == threshold && logger.GetOptions() == options; };
    for (int i = 0; i < 3000 && !is(); ++i)
    {
        ::Sleep(10);
    }
    return is();
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
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 4), 0U);
    EXPECT_TRUE(Becomes(logger, 4));
    WriteIni("Logging Level=2\r\nLogging Options=4\r\nLogging Entries=1\r\nLogging Folder=X");
    EXPECT_TRUE(Becomes(logger, 2, 4));
    ASSERT_TRUE(::DeleteFileW(m_ini.c_str()));
    EXPECT_TRUE(Becomes(logger, 4));
    m_settings.Close();
    m_key.Remove();
    EXPECT_TRUE(Becomes(logger, 3));
    EXPECT_EQ(m_settings.Create(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_ALL_ACCESS), 0U);
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, 6), 0U);
    EXPECT_TRUE(Becomes(logger, 6)) << "in the place of a key that is gone";

    // One message when the logger was made, then a full file with the next, and one when the file no longer
    // hid the first.
    std::wstring text;
    for (const std::wstring name : {L"2", L"1", L""})
    {
        const std::wstring file = L"log\\watched" + (name.empty() ? name : L"." + name) + L".log";
        text += std::regex_replace(ReadWide(m_folder.File(file)), std::wregex(L".*\\$|\r"), L"") + name;
    }
    EXPECT_EQ(Narrow(text), R"(2 Logging settings that cannot be used: Logging Options (registry)
1 Logging settings that cannot be used: Logging Folder (log.ini)
 Logging settings that cannot be used: Logging Options (registry)
)");
}

} // namespace
