#include "logging/BasaltLogger.h"

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#include "base/Text.h"
#include "logging/BasaltLogHandler.h"
#include "logging/DefaultLoggingHandler.h"
#include "logging/Log.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"

using Basalt::CLogger;

namespace
{

using Text = const wchar_t*;
using Lines = std::vector<std::wstring>;
Lines s_lines;
Lines s_debugger;

struct Recorder final : Basalt::ILoggingHandler
{
    explicit Recorder(Text text) : name(text) {}
    void Handle(DWORD level, Text file, Text function, DWORD line, Text text) noexcept override
    {
        s_lines.push_back(Basalt::FormatText(L"%s %u %s %s %u %s", name, level, file, function, line, text));
    }
    Text name;
};

DWORD Number(const void* pointer)
{
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(pointer));
}

/// Starts without a handler: the process logger, made by other tests, loses its bridge.
class BasaltTest : public ::testing::Test
{
protected:
    BasaltTest()
    {
        CLogger::UnregisterHandler(&ETWLogging::BasaltLogHandler());
        CLogger::UnregisterHandler(&Basalt::DefaultLoggingHandler());
        s_lines.clear();
        s_debugger.clear();
    }
    ~BasaltTest() override
    {
        CLogger::UnregisterHandler(&m_a);
        CLogger::UnregisterHandler(&m_b);
    }

    const CImportPatch m_debugger{"OutputDebugStringW", +[](Text text) { s_debugger.emplace_back(text); }};
    Recorder m_a{L"a"};
    Recorder m_b{L"b"};
};

TEST_F(BasaltTest, OneHandlerAtATimeIsRegistered)
{
    const DWORD a = Number(&m_a);
    const DWORD b = Number(&m_b);
    const auto line = [](Text start, DWORD error, Text text, DWORD one, DWORD two) {
        return Basalt::FormatText(start, L"Logging\\internal_logging Basalt::CLogger::") +
               Basalt::SystemMessage(error) + Basalt::FormatText(text, one, two);
    };
    Text const mismatch =
        L": Failed to Unregister Logging handler (requested handler 0x%08X != registered handler 0x%08X)";
    Text const none = L": Request to Unregister Logging handler 0x%08X, but none are registered";
    Text const kept = L": Registered Logging Handler 0x%08X cannot be replaced with 0x%08X";
    Text const nullIn = L": Cannot Register (NULL) handler";
    Text const nullOut = L": Cannot Unregister (NULL) handler";
    const Lines mismatches{
        line(L"a 2 %sUnregisterHandler 110 ", 5023, mismatch, b, a),
        line(L"b 2 %sUnregisterHandler 115 ", 5023, mismatch, b, a)};
    using Operation = DWORD (*)(Basalt::ILoggingHandler*);
    const std::tuple<Operation, Recorder*, DWORD, Lines> table[] = {
        {&CLogger::UnregisterHandler, &m_a, 5023, {line(L"a 2 %sUnregisterHandler 102 ", 5023, none, a, 0)}},
        {&CLogger::RegisterHandler, &m_a, 0, {}},
        {&CLogger::RegisterHandler, &m_a, 0, {}},
        {&CLogger::RegisterHandler, &m_b, 5023, {line(L"a 2 %sRegisterHandler 67 ", 5023, kept, a, b)}},
        {&CLogger::RegisterHandler, nullptr, 87, {line(L"a 2 %sRegisterHandler 57 ", 87, nullIn, 0, 0)}},
        {&CLogger::UnregisterHandler, nullptr, 87, {line(L"a 2 %sUnregisterHandler 92 ", 87, nullOut, 0, 0)}},
        {&CLogger::UnregisterHandler, &m_b, 5023, mismatches},
        {&CLogger::UnregisterHandler, &m_a, 0, {}},
        {&CLogger::RegisterHandler, &m_b, 0, {}},
    };
    for (const auto& [operation, handler, status, lines] : table)
    {
        s_lines.clear();

        EXPECT_EQ(operation(handler), status);

        EXPECT_EQ(s_lines, lines);
    }
}

TEST_F(BasaltTest, TheDefaultHandlerSendsTheBareMessageToTheDebuggerUntilItIsReplaced)
{
    for (const DWORD level : {0U, 1U, 2U, 9U})
    {
        CLogger::Log(level, L"file", L"f", 1, L"level %u", level);
    }
    EXPECT_EQ(CLogger::RegisterHandler(&m_a), 0u);
    CLogger::Log(1, L"file", L"f", 2, L"to %s", L"a");

    EXPECT_EQ(s_debugger, (Lines{L"level 1", L"level 2", L"level 9"}));
    EXPECT_EQ(s_lines, Lines{L"a 1 file f 2 to a"});
}

TEST_F(BasaltTest, WithoutMemoryTheHandlerGetsAFixedMessage)
{
    ASSERT_EQ(CLogger::RegisterHandler(&m_a), 0u);
    const std::wstring longText(54320, L'x');

    {
        const CImportPatch patch(
            "malloc", +[](std::size_t size) { return size == 108642 ? nullptr : std::calloc(1, size); });
        CLogger::Log(1, L"file", L"f", 3, L"%s", longText.c_str());
    }

    EXPECT_EQ(s_lines, Lines{L"a 2 file f 3 General memory-allocation failure in Basalt logger."});
}

TEST_F(BasaltTest, TheBridgeMapsTheLevelAndKeepsTheTextWhole)
{
    static_cast<void>(ETWLogging::LogIsEnabled(ETWLogging::LogError)); // Creates the process's logger.
    CLogCapture capture;
    const std::wstring longText(5000, L'x');
    const std::pair<DWORD, DWORD> table[] = {{0, 1}, {1, 1}, {2, 4}, {3, 2}, {MAXDWORD, 2}};
    for (const auto& [basaltLevel, level] : table)
    {
        SCOPED_TRACE(basaltLevel);
        capture.Clear();

        ETWLogging::BasaltLogHandler().Handle(basaltLevel, L"file", L"f", 8, longText.c_str());

        EXPECT_TRUE(capture.Has(level, longText));
    }
}

} // namespace
