#include "logging/LogBuilder.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#include "base/ObfuscatedRegKey.h"
#include "logging/ETWLogging.h"
#include "logging/LogSettings.h"
#include "logging/Logging.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

enum class Stored
{
    NoKey,
    NoValue,
    Good,
    Plain,
    Damaged
};

/// The settings key, holding one value in one of these ways.
class CStoredValue
{
public:
    CStoredValue(Stored how, const wchar_t* name, DWORD number)
        : m_key(HKEY_LOCAL_MACHINE, kLogSettingsKey, how != Stored::NoKey)
    {
        Basalt::CObfuscatedRegKey scrambled;
        if (how == Stored::Plain)
        {
            EXPECT_EQ(m_key.Key().WriteDword(name, number), 0u);
        }
        else if (how == Stored::Damaged)
        {
            EXPECT_EQ(m_key.Key().WriteValue(name, REG_BINARY, "TXO1 and then some", 16), 0u);
        }
        else if (how == Stored::Good)
        {
            EXPECT_EQ(scrambled.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_WRITE), 0u);
            EXPECT_EQ(scrambled.WriteDword(name, number), 0u);
        }
    }

private:
    CTestKey m_key;
};

struct FakeConfig final : ILogConfigReader
{
    explicit FakeConfig(DWORD stored) : mechanism(stored) {}
    DWORD ReadDword(const wchar_t* name, DWORD& value) const noexcept override
    {
        value = std::wstring(name) == L"Logging Mechanism" ? mechanism : 0;
        return ERROR_SUCCESS;
    }
    DWORD mechanism;
};

TEST(DefaultLogBuilder, ChoosesTheLoggerByTheMechanism)
{
    const FakeConfig file(1);
    const FakeConfig events(0);
    // What the registry holds; the override; the given reader; the outcome.
    const std::tuple<Stored, DWORD, DWORD, const FakeConfig*, bool> table[] = {
        {Stored::NoKey, 0, 0, nullptr, false},
        {Stored::NoValue, 0, 0, nullptr, false},
        {Stored::Good, 1, 0, nullptr, true},
        {Stored::Good, 2, 0, nullptr, false},
        {Stored::Plain, 1, 0, nullptr, false},
        {Stored::Damaged, 1, 0, nullptr, false},
        {Stored::Good, 0, 1, &events, true},
        {Stored::NoKey, 0, 2, nullptr, false},
        {Stored::NoKey, 0, 0, &file, true},
        {Stored::Good, 1, 0, &events, false},
    };
    for (const auto& [how, value, override, config, toFile] : table)
    {
        SCOPED_TRACE(static_cast<int>(how));
        const CStoredValue stored(how, kMechanismValue, value);
        std::unique_ptr<CLoggingIf> logger;

        ASSERT_TRUE(DefaultLogBuilder().Build(L"A:B", 0, nullptr, override, logger, config));

        EXPECT_EQ(dynamic_cast<CLogging*>(logger.get()) != nullptr, toFile);
        EXPECT_EQ(dynamic_cast<CETWLogging*>(logger.get()) != nullptr, !toFile);
        EXPECT_EQ(logger->GetGroup(), std::wstring(L"A:B"));
        EXPECT_EQ(logger->GetFileName(), std::wstring(toFile ? L"A_B.log" : L""));
        EXPECT_EQ(logger->GetApplicationTag(), std::wstring(toFile ? L"logging_tests" : L""));
    }
}

TEST(DefaultLogBuilder, RefusesEmptyNamesAndKeepsALoggerThatIsThere)
{
    CLogBuilderIf& builder = DefaultLogBuilder();
    std::unique_ptr<CLoggingIf> logger;

    EXPECT_FALSE(builder.Build(L"", 0, nullptr, 0, logger, nullptr));
    EXPECT_FALSE(builder.Build(L"GROUP", 0, L"", 1, logger, nullptr));
    EXPECT_EQ(logger, nullptr);
    EXPECT_TRUE(builder.Build(nullptr, 0, L"HOST", 0, logger, nullptr));
    CLoggingIf* const first = logger.get();
    EXPECT_TRUE(builder.Build(L"", 0, L"", 1, logger, nullptr));
    EXPECT_EQ(logger.get(), first);
}

TEST(LogSettings, OnlyUsableNumbersReplaceTheDefaults)
{
    // What the registry holds; the threshold and the options that come of it.
    const std::tuple<Stored, const wchar_t*, DWORD, DWORD, DWORD> table[] = {
        {Stored::NoKey, kLevelValue, 5, 3, 0x10},
        {Stored::Good, kLevelValue, 1, 1, 0x10},
        {Stored::Good, kLevelValue, 6, 6, 0x10},
        {Stored::Good, kLevelValue, 0, 3, 0x10},
        {Stored::Good, kLevelValue, 7, 3, 0x10},
        {Stored::Plain, kLevelValue, 5, 3, 0x10},
        {Stored::Good, kOptionsValue, 0, 3, 0},
        {Stored::Good, kOptionsValue, 0x3C, 3, 0x3C},
        {Stored::Good, kOptionsValue, 0x3D, 3, 0x10},
        {Stored::Damaged, kOptionsValue, 0x3C, 3, 0x10},
    };
    for (const auto& [how, name, number, threshold, options] : table)
    {
        SCOPED_TRACE(number);
        const CStoredValue stored(how, name, number);
        CLogging file;
        CETWLogging events;

        ASSERT_EQ(file.Initialize(L"GROUP", 0, nullptr, 0), 0u);
        ASSERT_EQ(events.Initialize(L"GROUP", 0, nullptr, 0), 0u);

        EXPECT_EQ(file.GetThreshold(), threshold);
        EXPECT_EQ(file.GetOptions(), options);
        EXPECT_EQ(events.GetThreshold(), threshold);
    }
}

TEST(LogSettings, TheFolderMustBeAbsolute)
{
    wchar_t standard[MAX_PATH] = {};
    ASSERT_NE(::ExpandEnvironmentStringsW(L"%ProgramData%\\Tarvex\\Log", standard, MAX_PATH), 0u);
    const wchar_t* const table[][2] = {
        {L"D:\\Logs\\", L"D:\\Logs"},
        {L"\\\\server\\share", L"\\\\server\\share"},
        {L"D:Logs", standard},
        {L"Logs\\here", standard},
        {L"", standard},
    };
    const CTestKey key(HKEY_LOCAL_MACHINE, kLogSettingsKey);
    Basalt::CObfuscatedRegKey settings;
    ASSERT_EQ(settings.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_WRITE), 0u);
    for (const auto& [configured, folder] : table)
    {
        ASSERT_EQ(settings.WriteString(kFolderValue, configured), 0u);
        CLogging logger;

        ASSERT_EQ(logger.Initialize(L"GROUP", 0, nullptr, 0), 0u);

        EXPECT_EQ(logger.GetFolder(), std::wstring(folder));
    }
}

} // namespace
