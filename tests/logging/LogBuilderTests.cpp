#include "logging/LogBuilder.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>

#include "base/ObfuscatedRegKey.h"
#include "logging/events/EventLogger.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/text/TextLogger.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

using Text = const wchar_t*;

/// The settings key, holding one number: n not at all, s scrambled, p plain, d damaged; a: there is no key.
struct StoredValue
{
    StoredValue(char how, Text name, DWORD number)
        : m_key(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, how != 'a')
    {
        Basalt::CObfuscatedRegKey scrambled;
        static_cast<void>(scrambled.Open(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_WRITE));
        EXPECT_TRUE(how != 's' || scrambled.WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 'p' || m_key.Key().WriteDword(name, number) == 0);
        EXPECT_TRUE(how != 'd' || m_key.Key().WriteValue(name, REG_BINARY, "TXO1 and then some", 16) == 0);
    }
    CTestKey m_key;
};

struct FakeConfig final : ILogConfigReader
{
    explicit FakeConfig(DWORD stored) : mechanism(stored) {}
    DWORD ReadDword(Text name, DWORD& value) const noexcept override
    {
        value = std::wstring(name) == L"Logging Mechanism" ? mechanism : 0;
        return ERROR_SUCCESS;
    }
    DWORD mechanism;
};

TEST(DefaultLogBuilder, ChoosesTheLoggerByTheMechanism)
{
    const FakeConfig file(1), events(0);
    // What the registry holds; the override; the given reader; the outcome.
    const std::tuple<char, DWORD, DWORD, const FakeConfig*, bool> table[] = {
        {'a', 0, 0, nullptr, false},
        {'n', 0, 0, nullptr, false},
        {'s', 1, 0, nullptr, true},
        {'s', 2, 0, nullptr, false},
        {'p', 1, 0, nullptr, false},
        {'d', 1, 0, nullptr, false},
        {'s', 0, 1, &events, true},
        {'a', 0, 2, nullptr, false},
        {'a', 0, 0, &file, true},
        {'s', 1, 0, &events, false}};
    for (const auto& [how, value, override, config, toFile] : table)
    {
        SCOPED_TRACE(testing::Message() << how << value << override);
        const StoredValue stored(how, kMechanismSetting.name, value);
        std::unique_ptr<CLoggingIf> logger;

        ASSERT_TRUE(DefaultLogBuilder().Build(L"A:B", 0, nullptr, override, logger, config));

        EXPECT_EQ(dynamic_cast<CLogging*>(logger.get()) != nullptr, toFile);
        EXPECT_EQ(dynamic_cast<CETWLogging*>(logger.get()) != nullptr, !toFile);
        EXPECT_EQ(logger->GetFileName(), std::wstring(toFile ? L"A_B.log" : L""));
        EXPECT_EQ(logger->GetApplicationTag(), std::wstring(toFile ? L"logging_tests" : L""));
    }

    CLogBuilderIf& builder = DefaultLogBuilder();
    std::unique_ptr<CLoggingIf> logger;
    EXPECT_FALSE(builder.Build(L"", 0, nullptr, 0, logger, nullptr));
    EXPECT_FALSE(builder.Build(L"GROUP", 0, L"", 1, logger, nullptr));
    EXPECT_TRUE(builder.Build(nullptr, 0, L"HOST", 0, logger, nullptr));
    const CLoggingIf* const first = logger.get();
    EXPECT_TRUE(builder.Build(L"", 0, L"", 1, logger, nullptr)); // A logger that is there stays.
    EXPECT_EQ(logger.get(), first);
}

} // namespace
