#include <cstdarg>
#include <memory>
#include <optional>
#include <regex>
#include <thread>
#include <tuple>

#include "LoggingTest.h"
#include "base/Text.h"
#include "logging/BasaltLogHandler.h"
#include "logging/Log.h"
#include "logging/LogBuilder.h"
#include "logging/LoggerSlot.h"
#include "logging/basalt/BasaltLogger.h"
#include "logging/basalt/DefaultLoggingHandler.h"
#include "logging/events/EventLogger.h"
#include "logging/text/TextLogger.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

using namespace ETWLogging;
using Basalt::CLogger;

namespace
{

struct LoggerTest : LoggingTest
{
    CETWLogging m_logger{ReadLogSettings()};
};

TEST_F(LoggerTest, AnEventCarriesTheMessageFieldByField)
{
    ASSERT_EQ(m_logger.InitializeEx(nullptr, L"GROUP", 0, nullptr, 0) + m_logger.Start(), 0U);
    std::string levels; // As a field, on Windows' scale in the header.
    for (const DWORD level : {1U, 2U, 3U, 4U, 5U, 6U, 0U, 300U})
    {
        EXPECT_EQ(m_logger.LogEx(level, L"file", nullptr, 0x1234567, L"text"), 0U);
        const LogLine line = m_trace.Lines().back();
        levels += std::to_string(line.level) + "/" + std::to_string(line.windowsLevel) + " ";
        EXPECT_EQ(line.source + line.function + line.group + line.message, L"fileGROUPtext");
        EXPECT_EQ(line.line, 0x1234567U);
        EXPECT_EQ(line.processId, ::GetCurrentProcessId());
        EXPECT_EQ(line.threadId, ::GetCurrentThreadId());
    }
    EXPECT_EQ(levels, "1/5 2/3 3/4 4/2 5/1 3/4 0/0 300/0 ");
}

TEST_F(LoggerTest, TheSessionChoosesTheLevelsBetweenStartAndStop)
{
    // The session's level, its flags, whether it is on; the levels enabled, the levels written. The
    // configured threshold is 4.
    const std::tuple<UCHAR, ULONG, bool, const char*, const char*> rows[] = {
        {0, 0, true, "34567", "1234567"},
        {1, 0, true, "3567", "1234567"}, // Windows' scale: critical.
        {3, 0, true, "234567", "1234567"},
        {5, 0, true, "1234567", "1234567"},
        {5, 1U << 3, true, "1234567", "347"}, // No flag stands for 7, and information reaches every session.
        {5, 1U << 3, false, "34567", ""}};
    const std::size_t others = m_trace.Registered();
    CLevelGate gate;
    m_logger.SetLevelGate(&gate);
    m_logger.SetThreshold(4);
    m_trace.Session().isOn = false;
    EXPECT_FALSE(gate.IsClosed(1)); // Start may still come.
    ASSERT_EQ(m_logger.Start() + m_logger.Start(), 0U);
    EXPECT_EQ(m_trace.Registered(), others + 1);
    EXPECT_TRUE(gate.IsClosed(4)) << "nobody listens yet";
    for (const auto& [sessionLevel, flags, isOn, enabled, written] : rows)
    {
        SCOPED_TRACE(testing::Message() << int{sessionLevel} << ' ' << flags << isOn);
        m_trace.Session().level = sessionLevel;
        m_trace.Session().flags = flags;
        EXPECT_EQ(m_trace.Tell(WMI_ENABLE_EVENTS), 0U);
        EXPECT_EQ(isOn ? 0U : m_trace.Tell(WMI_DISABLE_EVENTS), 0U);
        std::string isEnabled, isWritten;
        for (DWORD level = 1; level <= 7; ++level)
        {
            isEnabled += m_logger.IsLevelEnabled(level) != 0 ? std::to_string(level) : "";
            EXPECT_EQ(m_logger.Log(L"", L"", 1, level, L"text"), 0U);
            const bool isThere = !m_trace.Take().empty();
            isWritten += isThere ? std::to_string(level) : "";
            EXPECT_EQ(gate.IsClosed(level), !isThere || m_logger.IsLevelEnabled(level) == 0);
        }
        EXPECT_EQ(isEnabled, enabled);
        EXPECT_EQ(isWritten, written);
    }
    EXPECT_EQ(m_trace.Tell(WMI_ENABLE_EVENTS), 0U);
    EXPECT_EQ(m_logger.Stop(), 0U);
    EXPECT_EQ(m_trace.Registered(), others);
    EXPECT_EQ(m_logger.LogEx(LogError, L"", L"", 1, L"text"), 0U);
    EXPECT_EQ(m_trace.Take(), "");
    EXPECT_FALSE(gate.IsClosed(4));
}

TEST_F(LoggerTest, TheBuilderChoosesByTheMechanismAndTheLoggerHasItsSettings)
{
    EXPECT_EQ(m_settings.WriteDword(kLevelSetting.name, LogCritical), 0U);
    CLogBuilderIf& builder = DefaultLogBuilder();
    for (const auto& [stored, override, isFile] : std::initializer_list<std::tuple<DWORD, DWORD, bool>>{
             {0, 0, false}, {1, 0, true}, {2, 0, false}, {0, 1, true}, {0, 2, false}})
    {
        SCOPED_TRACE(testing::Message() << stored << override);
        EXPECT_EQ(m_settings.WriteDword(kMechanismSetting.name, stored), 0U);
        std::unique_ptr<CLoggingIf> logger;
        ASSERT_TRUE(builder.Build(L"A:B", 0, L"HOST", override, logger, nullptr));
        EXPECT_EQ(dynamic_cast<CETWLogging*>(logger.get()) == nullptr, isFile);
        EXPECT_EQ(logger->GetFileName(), std::wstring(isFile ? L"A_B.log" : L""));
        EXPECT_EQ(logger->GetApplicationTag(), std::wstring(isFile ? L"host" : L""));
        EXPECT_EQ(logger->GetGroup() + std::wstring(logger->GetHost()), L"A:BHOST");
        EXPECT_EQ(logger->IsLevelEnabled(LogError) * 2 + logger->IsLevelEnabled(LogCritical), 1U);
    }
}

std::unique_ptr<CLoggerHolder> MakeHolder(DWORD mechanism, Text group = L"GROUP")
{
    auto holder = std::make_unique<CLoggerHolder>(BasaltLogHandler());
    holder->Create(DefaultLogBuilder(), {nullptr, group, 0, nullptr, mechanism});
    return holder;
}

DWORD Write(CLoggerHolder& holder, DWORD level, Text format, ...)
{
    va_list arguments{};
    va_start(arguments, format);
    const DWORD status = holder.Write(level, L"file", L"f", 1, format, arguments);
    va_end(arguments);
    return status;
}

TEST_F(LoggerTest, TheHolderCutsTheTextAndAsksForTheLevelAsTheKindOfLoggerWantsIt)
{
    WriteIni("Logging Folder=" + Narrow(m_folder.Path()) + "\\log\r\nLogging Options=0");
    m_trace.Session().level = 0;
    const auto events = MakeHolder(0), file = MakeHolder(1), none = MakeHolder(0, L"");
    const std::tuple<bool, std::size_t, std::size_t> rows[] = {
        {true, 2079, 2079}, {true, 2080, 2079}, {false, 4160, 4160}, {false, 4161, 2080}};
    for (const auto& [isEvent, length, arrives] : rows)
    {
        const std::wstring text(length, L'x');
        EXPECT_EQ(Write(isEvent ? *events : *file, isEvent ? LogError : LogNormal, L"%s", text.c_str()), 0U);
        const std::wstring found =
            isEvent ? m_trace.Lines().back().message : ReadWide(m_folder.File(L"log\\GROUP.log"));
        EXPECT_EQ(found.size() - found.find(L'x'), arrives + (isEvent ? 0 : 2)) << length;
        std::filesystem::remove(m_folder.File(L"log\\GROUP.log"));
    }
    m_trace.Clear();
    EXPECT_EQ(Write(*events, LogWarning, L"text"), 0U);
    EXPECT_EQ(m_trace.Take(), "");
    EXPECT_TRUE(events->IsEnabled(LogError) && !file->IsEnabled(LogWarning) && !none->IsEnabled(LogError));
    EXPECT_EQ(Write(*file, 0, L"text"), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Write(*none, LogError, L"text"), DWORD{ERROR_FUNCTION_FAILED});
    m_trace.Session().status = ERROR_MORE_DATA;
    EXPECT_EQ(Write(*events, LogError, L"too long for the session"), 0U);
    EXPECT_EQ(events->WriteFinished(0, L"", L"", 1, L"text"), DWORD{ERROR_MORE_DATA});
}

TEST_F(LoggerTest, TeardownWaitsForTheUsersAndLeaksWhatTheyKeep)
{
    const std::size_t others = m_trace.Registered();
    for (const bool isStaying : {false, true})
    {
        CLoggerSlot slot;
        slot.Publish(MakeHolder(0));
        std::optional<CLoggerSlot::CUse> use(std::in_place, slot);
        EXPECT_EQ(Write(*use->Get(), LogError, L"text"), 0U);
        std::thread ending([&] { slot.Teardown(isStaying ? 10 : INFINITE); });
        while (CLoggerSlot::CUse(slot).Get() != nullptr)
        {
        }
        isStaying ? ending.join() : ::Sleep(20); // Enough for one that would not wait.
        EXPECT_EQ(m_trace.Registered(), others + 1);
        EXPECT_EQ(Write(*use->Get(), LogError, L"still there"), 0U);
        use.reset();
        isStaying ? void() : ending.join();
        EXPECT_EQ(m_trace.Registered(), others + isStaying);
    }
}

TEST_F(LoggerTest, TheBridgeTakesOverTheLevelsOfTheBaseLibrary)
{
    EXPECT_TRUE(LogIsEnabled(LogError)); // The first call makes the process's logger.
    m_trace.Clear();
    for (const DWORD level : {0U, 1U, 2U, 3U})
    {
        CLogger::Log(level, L"base", L"f", 1, L"text");
    }
    EXPECT_EQ(m_trace.Take(), "1 f: text\n1 f: text\n4 f: text\n2 f: text\n");
    EXPECT_EQ(CLogger::UnregisterHandler(&BasaltLogHandler()), 0U);
}

std::wstring s_lines;

struct Recorder final : Basalt::ILoggingHandler
{
    explicit Recorder(Text given) : name(given) {}
    void Handle(DWORD level, Text file, Text function, DWORD line, Text text) noexcept override
    {
        const CNoMemory::CExempt exempt;
        s_lines += Basalt::FormatText(L"%s %u %s %s:%u %s\n", name, level, function, file, line, text);
    }
    Text name;
};

TEST_F(LoggerTest, OneBasaltHandlerAtATimeIsRegisteredAndItsOwnersLearnOfMistakes)
{
    CLogger::UnregisterHandler(&Basalt::DefaultLoggingHandler());
    static std::wstring s_debugger; // Takes the bare message until a handler comes.
    const CImportPatch debugger("OutputDebugStringW", +[](Text text) { s_debugger += text; });
    CLogger::Log(9, L"file", L"f", 1, L"level %u;", 9U);
    CLogger::Log(0, L"file", L"f", 1, L"level 0;");
    EXPECT_EQ(s_debugger, L"level 9;");
    Recorder a(L"a"), b(L"b");
    EXPECT_EQ(CLogger::RegisterHandler(&a) + CLogger::RegisterHandler(&a), 0U);
    EXPECT_EQ(CLogger::RegisterHandler(&b), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(CLogger::UnregisterHandler(&b), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(CLogger::RegisterHandler(nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CLogger::UnregisterHandler(nullptr), DWORD{ERROR_INVALID_PARAMETER});
    {
        const CNoMemory noMemory;
        CLogger::Log(1, L"file", L"f", 3, L"text");
    }
    EXPECT_EQ(CLogger::UnregisterHandler(&a), 0U);
    EXPECT_EQ(CLogger::UnregisterHandler(&a), DWORD{ERROR_INVALID_STATE});
    EXPECT_EQ(
        std::regex_replace(
            Narrow(s_lines), std::regex("(:\\d+ ).*: (?=[A-Z])| 0x[0-9A-F]{8}|Basalt::CLogger::"), "$1"),
        R"(a 2 RegisterHandler Logging\internal_logging:67 Registered Logging Handler cannot be replaced with
a 2 UnregisterHandler Logging\internal_logging:110 Failed to Unregister Logging handler (requested handler != registered handler)
b 2 UnregisterHandler Logging\internal_logging:115 Failed to Unregister Logging handler (requested handler != registered handler)
a 2 RegisterHandler Logging\internal_logging:57 Cannot Register (NULL) handler
a 2 UnregisterHandler Logging\internal_logging:92 Cannot Unregister (NULL) handler
a 2 f file:3 General memory-allocation failure in Basalt logger.
a 2 UnregisterHandler Logging\internal_logging:102 Request to Unregister Logging handler, but none are registered
)");
}

} // namespace
