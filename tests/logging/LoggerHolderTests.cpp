#include "logging/LoggerHolder.h"

#include <cstdarg>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "logging/ETWLogging.h"
#include "logging/LoggerSlot.h"
#include "logging/Logging.h"

using namespace ETWLogging;

namespace
{

using Text = const wchar_t*;
using Slot = std::unique_ptr<CLoggingIf>;
using Config = const ILogConfigReader*;

/// What the fake loggers were given, and what they answer.
struct Fake
{
    std::vector<std::wstring> texts;
    DWORD startStatus = ERROR_SUCCESS;
    DWORD logStatus = ERROR_SUCCESS;
    int destroyed = 0;
} s_fake;

DWORD Record(Text text) noexcept
{
    s_fake.texts.emplace_back(text);
    return s_fake.logStatus;
}

struct FakeFileLogger final : CLogging
{
    ~FakeFileLogger() override { ++s_fake.destroyed; }
    DWORD Start() noexcept override { return s_fake.startStatus; }
    DWORD Log(Text, Text, DWORD, DWORD, Text text) noexcept override { return Record(text); }
};

struct FakeEventLogger final : CETWLogging
{
    DWORD Start() noexcept override { return s_fake.startStatus; }
    DWORD LogEx(DWORD, Text, Text, DWORD, Text text) noexcept override { return Record(text); }
};

struct FakeBuilder : CLogBuilderIf
{
    bool Build(Text, DWORD, Text, DWORD, Slot& logger, Config) noexcept override
    {
        logger = std::make_unique<FakeFileLogger>();
        return true;
    }
};

struct FakeBuilderEx : CLogBuilderIf_ex
{
    FakeBuilderEx(bool ex, bool plain) : exWorks(ex), plainWorks(plain) {}
    bool Build(Text, DWORD, Text, DWORD, Slot& logger, Config) noexcept override
    {
        logger = plainWorks ? std::make_unique<FakeFileLogger>() : nullptr;
        return plainWorks;
    }
    bool BuildEx(void*, Text, DWORD, Text, DWORD, Slot& logger, Config) noexcept override
    {
        logger = exWorks ? std::make_unique<FakeEventLogger>() : nullptr;
        return exWorks;
    }
    bool exWorks;
    bool plainWorks;
};

DWORD Write(CLoggerHolder& holder, DWORD level, Text format, ...)
{
    va_list arguments{};
    va_start(arguments, format);
    const DWORD status = holder.Write(level, L"file", L"function", 1, format, arguments);
    va_end(arguments);
    return status;
}

std::unique_ptr<CLoggerHolder> Make(bool events)
{
    s_fake = {};
    auto holder = std::make_unique<CLoggerHolder>();
    FakeBuilderEx builder(events, true);
    holder->Create(builder, {});
    return holder;
}

TEST(LoggerHolder, CutsTheTextAsTheKindOfLoggerWantsIt)
{
    const std::tuple<bool, std::size_t, std::size_t> table[] = {
        {true, 2079, 2079},
        {true, 2080, 2079},
        {true, 3000, 2079},
        {false, 2081, 2081},
        {false, 3000, 3000},
        {false, 4160, 4160},
        {false, 4161, 2080},
        {false, 5000, 2080}};
    for (const auto& [events, length, arrives] : table)
    {
        SCOPED_TRACE(length);
        std::wstring text(length, L'x');
        text[arrives - 1] = L'!';

        EXPECT_EQ(Write(*Make(events), LogError, L"%s", text.c_str()), 0u);

        ASSERT_EQ(s_fake.texts.size(), 1u);
        EXPECT_TRUE(s_fake.texts[0] == text.substr(0, arrives));
    }
}

TEST(LoggerHolder, AsksOnlyTheEventLoggerForTheLevel)
{
    const std::tuple<bool, DWORD, bool, bool> table[] = {
        {true, 2, false, false}, {true, 3, true, true}, {false, 2, false, true}, {false, 3, true, true}};
    for (const auto& [events, level, enabled, written] : table)
    {
        const auto holder = Make(events);

        EXPECT_EQ(holder->IsEnabled(level), enabled);
        EXPECT_EQ(Write(*holder, level, L"text"), 0u);
        EXPECT_EQ(s_fake.texts.size(), written ? 1u : 0u);
    }
}

TEST(LoggerHolder, ReturnsTheErrorsOfStartAndOfTheFile)
{
    for (const bool events : {true, false})
    {
        const auto holder = Make(events);
        s_fake.logStatus = ERROR_DISK_FULL;
        EXPECT_EQ(Write(*holder, LogError, L"text"), static_cast<DWORD>(events ? ERROR_SUCCESS : ERROR_DISK_FULL));
        EXPECT_EQ(holder->WriteFinished(0, L"", L"", 1, L"text"), DWORD{ERROR_DISK_FULL});
        s_fake.startStatus = ERROR_NO_SYSTEM_RESOURCES;
        EXPECT_EQ(Write(*holder, LogError, L"text"), DWORD{ERROR_NO_SYSTEM_RESOURCES});
        EXPECT_EQ(holder->WriteFinished(0, L"", L"", 1, L"text"), DWORD{ERROR_NO_SYSTEM_RESOURCES});
        EXPECT_EQ(s_fake.texts.size(), 2u);
    }
}

TEST(LoggerHolder, FallsBackToThePlainBuild)
{
    FakeBuilder plain;
    FakeBuilderEx both(true, true);
    FakeBuilderEx onlyPlain(false, true);
    FakeBuilderEx none(false, false);
    const std::tuple<CLogBuilderIf*, DWORD, int> table[] = {
        {&plain, 0, 1}, {&both, 0, 0}, {&onlyPlain, 0, 1}, {&none, ERROR_FUNCTION_FAILED, 0}};
    for (const auto& [builder, status, fileLoggers] : table)
    {
        s_fake = {};
        {
            CLoggerHolder holder;
            holder.Create(*builder, {});

            EXPECT_EQ(Write(holder, LogError, L"text"), status);
            EXPECT_EQ(holder.IsEnabled(LogError), status == 0);
        }
        EXPECT_EQ(s_fake.destroyed, fileLoggers);
    }
}

TEST(LoggerSlot, TeardownWaitsForTheUsersAndLeaksWhatTheyKeep)
{
    CLoggerSlot slot;
    slot.Publish(Make(false));
    {
        const CLoggerSlot::CUse use(slot);
        slot.Teardown(10);
        EXPECT_EQ(s_fake.destroyed, 0);
        EXPECT_EQ(Write(*use.Get(), LogError, L"still there"), 0u);
        EXPECT_EQ(CLoggerSlot::CUse(slot).Get(), nullptr);
    }

    slot.Publish(Make(false));
    std::atomic<bool> inside = false;
    std::jthread user([&slot, &inside] {
        const CLoggerSlot::CUse use(slot);
        inside = true;
        while (CLoggerSlot::CUse(slot).Get() != nullptr) // Until the teardown has begun.
        {
            ::Sleep(0);
        }
        ::Sleep(20); // Enough for one that would not wait.
        EXPECT_EQ(s_fake.destroyed, 0);
    });
    while (!inside)
    {
        ::Sleep(0);
    }
    slot.Teardown(INFINITE);
    EXPECT_EQ(s_fake.destroyed, 1);
}

} // namespace
