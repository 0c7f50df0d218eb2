#include "logging/events/EventLogger.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#include "contract/EventRecord.h"
#include "support/ImportPatch.h"

using namespace ETWLogging;

namespace
{

constexpr TRACEHANDLE kSession = 0x5E55;

/// The system's side of a provider: what it was told, and what it answers.
struct Provider
{
    WMIDPREQUEST callback;
    void* context;
    int registered, unregistered;
    ULONG status, flags;
    UCHAR level, headerLevel;
    bool enableEarly;                 ///< inside RegisterTraceGuidsW
    std::vector<std::wstring> events; ///< the fields one after the other, as they stand in the trace
} s_provider;

ULONG Control(WMIDPREQUESTCODE code)
{
    WNODE_HEADER node{};
    ULONG size = sizeof(node);
    return s_provider.callback(code, s_provider.context, &size, &node);
}

using Classes = TRACE_GUID_REGISTRATION;
using Text = const wchar_t*;

ULONG WINAPI
FakeRegister(WMIDPREQUEST call, void* context, GUID* id, ULONG, Classes* classes, Text, Text, PTRACEHANDLE)
{
    EXPECT_EQ(*id, kEventProvider);
    EXPECT_EQ(*classes[0].Guid, kMessageEventClass);
    s_provider.callback = call;
    s_provider.context = context;
    ++s_provider.registered;
    return s_provider.enableEarly ? Control(WMI_ENABLE_EVENTS) : s_provider.status;
}

ULONG WINAPI FakeTraceEvent(TRACEHANDLE session, EVENT_TRACE_HEADER* header)
{
    EXPECT_EQ(session, kSession);
    EXPECT_EQ(header->Size, sizeof(EVENT_TRACE_HEADER) + kEventFieldCount * sizeof(MOF_FIELD));
    EXPECT_EQ(header->Flags, ULONG{WNODE_FLAG_TRACED_GUID | WNODE_FLAG_USE_MOF_PTR});
    EXPECT_EQ(header->Guid, kMessageEventClass);
    EXPECT_EQ(header->Class.Type, kMessageEventType);
    EXPECT_EQ(header->Class.Version, kMessageEventVersion);
    s_provider.headerLevel = header->Class.Level;
    std::wstring event;
    for (const MOF_FIELD& field : reinterpret_cast<MessageEvent*>(header)->fields)
    {
        event.append(reinterpret_cast<const wchar_t*>(field.DataPtr), field.Length / sizeof(wchar_t));
    }
    s_provider.events.push_back(event);
    return ERROR_SUCCESS;
}

struct EtwTest : ::testing::Test
{
    EtwTest() { s_provider = {}; }

    const CImportPatch m_patches[6] = {
        {"RegisterTraceGuidsW", &FakeRegister},
        {"UnregisterTraceGuids", +[](TRACEHANDLE) { return ++s_provider.unregistered, ULONG{0}; }},
        {"GetTraceLoggerHandle", +[](void*) { return kSession; }},
        {"GetTraceEnableLevel", +[](TRACEHANDLE) { return s_provider.level; }},
        {"GetTraceEnableFlags", +[](TRACEHANDLE) { return s_provider.flags; }},
        {"TraceEvent", &FakeTraceEvent}};
    CETWLogging m_logger;
};

std::wstring Field(DWORD number)
{
    return {static_cast<wchar_t>(LOWORD(number)), static_cast<wchar_t>(HIWORD(number))};
}

TEST_F(EtwTest, AnEventCarriesTheMessageFieldByField)
{
    // The level, as a field, on Windows' scale in the header.
    const std::tuple<DWORD, DWORD, UCHAR, const wchar_t*> table[] = {
        {1, 1, 5, L"text"},
        {2, 2, 3, L"text"},
        {3, 3, 4, L"text"},
        {4, 4, 2, L"text"},
        {5, 5, 1, L"text"},
        {6, 3, 4, L"text"},
        {0, 0, 0, L""},
        {7, 7, 0, L"text"},
        {300, 300, 0, nullptr}};
    s_provider.enableEarly = true;
    ASSERT_EQ(m_logger.InitializeEx(nullptr, L"GROUP", 0, nullptr, 0), 0u);
    ASSERT_EQ(m_logger.Start(), 0u);
    const std::wstring ids = Field(::GetCurrentProcessId()) + Field(::GetCurrentThreadId());
    const std::wstring group = std::wstring(L"GROUP") + L'\0';
    for (const auto& [level, carried, inHeader, text] : table)
    {
        EXPECT_EQ(m_logger.LogEx(level, text, text, 0x1234567, text), 0u);
        const std::wstring field = std::wstring(text == nullptr ? L"" : text) + L'\0';
        const std::wstring start = Field(carried) + field + field + Field(0x1234567);
        EXPECT_EQ(s_provider.events.back(), start + group + ids + field) << level;
        EXPECT_EQ(s_provider.headerLevel, inHeader) << level;
    }
}

TEST_F(EtwTest, TheSessionChoosesTheLevels)
{
    // Session on, its level, its flags; the message's level; enabled, written. The configured threshold is 4.
    const std::tuple<bool, UCHAR, ULONG, DWORD, bool, bool> table[] = {
        {true, 0, 0, 4, true, true},
        {true, 0, 0, 3, true, true}, // Information always passes.
        {true, 0, 0, 2, false, true},
        {true, 0, 0, MAXDWORD, true, true}, // Without sign.
        {true, 1, 0, 5, true, true},        // Windows' scale: critical.
        {true, 1, 0, 4, false, true},
        {true, 2, 0, 4, true, true},
        {true, 2, 0, 2, false, true},
        {true, 3, 0, 2, true, true},
        {true, 4, 0, 1, false, true},
        {true, 5, 0, 1, true, true},
        {true, 255, 0, 1, true, true},
        {false, 5, 0, 1, false, false},
        {false, 1, 0, 4, true, false},
        {true, 5, 1U << 3, 4, true, true},
        {true, 5, 1U << 3, 5, true, false},
        {true, 5, 1U << 3, 3, true, true},  // Information reaches every session.
        {true, 5, 1U << 3, 33, true, true}, // No flag stands for it.
    };
    CLevelGate gate;
    m_logger.SetLevelGate(&gate);
    EXPECT_FALSE(gate.IsClosed(1)); // Start is still to come, and may fail.
    ASSERT_EQ(m_logger.Start(), 0u);
    EXPECT_TRUE(gate.IsClosed(4)) << "nobody listens yet";
    m_logger.SetThreshold(4);
    for (const auto& [session, sessionLevel, flags, level, enabled, written] : table)
    {
        SCOPED_TRACE(level);
        s_provider.events.clear();
        s_provider.level = sessionLevel;
        s_provider.flags = flags;
        ASSERT_EQ(Control(WMI_ENABLE_EVENTS), 0u);
        ASSERT_EQ(session ? 0u : Control(WMI_DISABLE_EVENTS), 0u);

        EXPECT_EQ(m_logger.IsLevelEnabled(level) != 0, enabled);
        EXPECT_EQ(m_logger.Log(L"", L"", 1, level, L"text"), 0u);
        EXPECT_EQ(s_provider.events.size(), written ? 1u : 0u);
        EXPECT_EQ(gate.IsClosed(level), level < CLevelGate::kLevels && !(enabled && written));
    }
    EXPECT_EQ(m_logger.Stop(), 0u);
    EXPECT_FALSE(gate.IsClosed(4));
}

TEST_F(EtwTest, RegistersOnceAndUnregistersWhatItRegistered)
{
    s_provider.status = ERROR_NO_SYSTEM_RESOURCES;
    EXPECT_EQ(m_logger.Start(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_EQ(m_logger.Stop(), 0u);
    EXPECT_EQ(s_provider.unregistered, 0);

    s_provider.enableEarly = true;
    EXPECT_EQ(m_logger.Start(), 0u);
    EXPECT_EQ(m_logger.Start(), 0u);
    EXPECT_EQ(s_provider.registered, 2);
    EXPECT_EQ(m_logger.Stop(), 0u);
    EXPECT_EQ(m_logger.LogEx(LogError, L"", L"", 1, L"text"), 0u);
    EXPECT_TRUE(s_provider.events.empty());

    EXPECT_EQ(CETWLogging().Start(), 0u);
    EXPECT_EQ(s_provider.unregistered, 2);
}

} // namespace
