#include "logging/LoggerHolder.h"

#include <cstdarg>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/Text.h"
#include "logging/BasaltLogHandler.h"
#include "logging/basalt/BasaltLogger.h"
#include "logging/basalt/DefaultLoggingHandler.h"
#include "logging/events/EventLogger.h"
#include "logging/LoggerSlot.h"
#include "logging/text/TextLogger.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"

using namespace ETWLogging;
using Basalt::CLogger;
using Basalt::FormatText;

namespace
{

using Text = const wchar_t*;
using Lines = std::vector<std::wstring>;
using Slot = std::unique_ptr<CLoggingIf>;
using Config = const ILogConfigReader*;

/// What the fake loggers were given, and what they answer.
struct Fake
{
    Lines texts;
    DWORD startStatus = 0, logStatus = 0;
    int destroyed = 0;
    DWORD Record(Text text) { return texts.emplace_back(text), logStatus; }
} s_fake;

struct FakeFileLogger final : CLogging
{
    ~FakeFileLogger() override { ++s_fake.destroyed; }
    DWORD Start() noexcept override { return s_fake.startStatus; }
    DWORD Log(Text, Text, DWORD, DWORD, Text text) noexcept override { return s_fake.Record(text); }
};
struct FakeEventLogger final : CETWLogging
{
    DWORD Start() noexcept override { return s_fake.startStatus; }
    DWORD LogEx(DWORD, Text, Text, DWORD, Text text) noexcept override { return s_fake.Record(text); }
};
struct FakeBuilder : CLogBuilderIf_ex
{
    FakeBuilder(bool ex, bool plain) : exWorks(ex), plainWorks(plain) {}
    bool Build(Text, DWORD, Text, DWORD, Slot& logger, Config) noexcept override
    {
        logger = std::make_unique<FakeFileLogger>();
        return plainWorks;
    }
    bool BuildEx(void*, Text, DWORD, Text, DWORD, Slot& logger, Config) noexcept override
    {
        logger = exWorks ? std::make_unique<FakeEventLogger>() : nullptr;
        return exWorks;
    }
    bool exWorks, plainWorks;
};

DWORD Write(CLoggerHolder& holder, DWORD level, Text format, ...)
{
    va_list arguments{};
    va_start(arguments, format);
    const DWORD status = holder.Write(level, L"file", L"function", 1, format, arguments);
    va_end(arguments);
    return status;
}

std::unique_ptr<CLoggerHolder> Make(bool events, bool plain = true)
{
    s_fake = {};
    auto holder = std::make_unique<CLoggerHolder>();
    FakeBuilder builder(events, plain);
    holder->Create(builder, {});
    s_fake.destroyed = 0;
    return holder;
}

TEST(LoggerHolder, CutsTheTextAsTheKindOfLoggerWantsIt)
{
    const std::tuple<bool, std::size_t, std::size_t> table[] = {
        {true, 2079, 2079},
        {true, 2080, 2079},
        {false, 2081, 2081},
        {false, 4160, 4160},
        {false, 4161, 2080},
        {false, 5000, 2080}};
    for (const auto& [events, length, arrives] : table)
    {
        std::wstring text(length, L'x');
        text[arrives - 1] = L'!';
        EXPECT_EQ(Write(*Make(events), LogError, L"%s", text.c_str()), 0u);
        EXPECT_TRUE(s_fake.texts == Lines{text.substr(0, arrives)}) << length;
    }
}

TEST(LoggerHolder, AsksOnlyTheEventLoggerForTheLevelAndReturnsTheErrorsOfStartAndOfTheFile)
{
    for (const bool events : {true, false})
    {
        const auto holder = Make(events);
        EXPECT_FALSE(holder->IsEnabled(2));
        EXPECT_TRUE(holder->IsEnabled(3));
        EXPECT_EQ(Write(*holder, 2, L"text"), 0u);
        EXPECT_EQ(s_fake.texts.size(), events ? 0u : 1u);
        s_fake.logStatus = ERROR_DISK_FULL;
        EXPECT_EQ(Write(*holder, 3, L"text"), static_cast<DWORD>(events ? ERROR_SUCCESS : ERROR_DISK_FULL));
        EXPECT_EQ(holder->WriteFinished(0, L"", L"", 1, L"text"), DWORD{ERROR_DISK_FULL});
        s_fake.startStatus = ERROR_NO_SYSTEM_RESOURCES;
        EXPECT_EQ(Write(*holder, LogError, L"text"), DWORD{ERROR_NO_SYSTEM_RESOURCES});
        EXPECT_EQ(holder->WriteFinished(0, L"", L"", 1, L"text"), DWORD{ERROR_NO_SYSTEM_RESOURCES});
        EXPECT_EQ(s_fake.texts.size(), events ? 2u : 3u);
    }
    const auto none = Make(false, false);
    EXPECT_EQ(Write(*none, LogError, L"text"), DWORD{ERROR_FUNCTION_FAILED});
    EXPECT_FALSE(none->IsEnabled(LogError));
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
        for (inside = true; CLoggerSlot::CUse(slot).Get() != nullptr;
             ::Sleep(0)) // Until the teardown has begun.
        {
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

Lines s_lines;
Lines s_debugger;

struct Recorder final : Basalt::ILoggingHandler
{
    explicit Recorder(Text text) : name(text) {}
    void Handle(DWORD level, Text file, Text function, DWORD line, Text text) noexcept override
    {
        s_lines.push_back(FormatText(L"%s %u %s %s %u %s", name, level, file, function, line, text));
    }
    Text name;
};

TEST(BasaltLogger, OneHandlerAtATimeIsRegisteredAndItsOwnersLearnOfMistakes)
{
    CLogger::UnregisterHandler(
        &BasaltLogHandler()); // The process logger, made by other tests, loses its bridge.
    CLogger::UnregisterHandler(&Basalt::DefaultLoggingHandler());
    Recorder a(L"a"), b(L"b");
    const auto number = [](const void* p) { return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(p)); };
    const auto line = [&](Text start, DWORD error, Text text, const void* one, const void* two) {
        return FormatText(start, L"Logging\\internal_logging Basalt::CLogger::") +
               Basalt::SystemMessage(error) + FormatText(text, number(one), number(two));
    };
    Text const mismatch =
        L": Failed to Unregister Logging handler (requested handler 0x%08X != registered handler 0x%08X)";
    Text const none = L": Request to Unregister Logging handler 0x%08X, but none are registered";
    Text const kept = L": Registered Logging Handler 0x%08X cannot be replaced with 0x%08X";
    const Lines nullIn{
        line(L"a 2 %sRegisterHandler 57 ", 87, L": Cannot Register (NULL) handler", nullptr, nullptr)};
    const Lines nullOut{
        line(L"a 2 %sUnregisterHandler 92 ", 87, L": Cannot Unregister (NULL) handler", nullptr, nullptr)};
    const Lines mismatches{
        line(L"a 2 %sUnregisterHandler 110 ", 5023, mismatch, &b, &a),
        line(L"b 2 %sUnregisterHandler 115 ", 5023, mismatch, &b, &a)};
    const auto add = &CLogger::RegisterHandler, remove = &CLogger::UnregisterHandler;
    const std::tuple<decltype(add), Recorder*, DWORD, Lines> table[] = {
        {remove, &a, 5023, {line(L"a 2 %sUnregisterHandler 102 ", 5023, none, &a, nullptr)}},
        {add, &a, 0, {}},
        {add, &a, 0, {}},
        {add, &b, 5023, {line(L"a 2 %sRegisterHandler 67 ", 5023, kept, &a, &b)}},
        {add, nullptr, 87, nullIn},
        {remove, nullptr, 87, nullOut},
        {remove, &b, 5023, mismatches},
        {remove, &a, 0, {}}};
    for (const auto& [operation, handler, status, lines] : table)
    {
        s_lines.clear();
        EXPECT_EQ(operation(handler), status);
        EXPECT_EQ(s_lines, lines);
    }

    // Without one the default handler sends the bare message to the debugger until it is replaced.
    const CImportPatch debugger("OutputDebugStringW", +[](Text text) { s_debugger.emplace_back(text); });
    for (const DWORD level : {0U, 1U, 2U, 9U})
    {
        CLogger::Log(level, L"file", L"f", 1, L"level %u", level);
    }
    EXPECT_EQ(CLogger::RegisterHandler(&a), 0u);
    CLogger::Log(1, L"file", L"f", 2, L"to %s", L"a");
    EXPECT_EQ(s_debugger, (Lines{L"level 1", L"level 2", L"level 9"}));
    EXPECT_EQ(s_lines, Lines{L"a 1 file f 2 to a"});

    const std::wstring longText(54320, L'x');
    const CImportPatch patch(
        "malloc", +[](std::size_t size) { return size == 108642 ? nullptr : std::calloc(1, size); });
    CLogger::Log(1, L"file", L"f", 3, L"%s", longText.c_str());
    EXPECT_EQ(s_lines.back(), L"a 2 file f 3 General memory-allocation failure in Basalt logger.");
    CLogger::UnregisterHandler(&a);
}

TEST(BasaltLogger, TheBridgeMapsTheLevelAndKeepsTheTextWhole)
{
    static_cast<void>(LogIsEnabled(LogError)); // Creates the process's logger.
    const CLogCapture capture;
    const std::wstring longText(5000, L'x');
    const std::pair<DWORD, DWORD> table[] = {{0, 1}, {1, 1}, {2, 4}, {3, 2}, {MAXDWORD, 2}};
    for (const auto& [basaltLevel, level] : table)
    {
        BasaltLogHandler().Handle(basaltLevel, L"file", L"f", 8, longText.c_str());
        EXPECT_EQ(capture.Lines().back().level, level) << basaltLevel;
        EXPECT_EQ(capture.Lines().back().message, longText);
    }
}

} // namespace
