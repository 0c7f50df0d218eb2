#include "support/LogCapture.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "contract/EventRecord.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

using ETWLogging::EventField;

namespace
{

constexpr TRACEHANDLE kSession = 0x7E57;
constexpr TRACEHANDLE kRegistration = 0x4E61;

std::mutex g_mutex;
std::vector<LogLine> g_lines;

template <typename T>
T FieldAs(const ETWLogging::MessageEvent& event, EventField field)
{
    return *reinterpret_cast<const T*>(event.fields[static_cast<std::size_t>(field)].DataPtr);
}

std::wstring TextOf(const ETWLogging::MessageEvent& event, EventField field)
{
    return reinterpret_cast<const wchar_t*>(event.fields[static_cast<std::size_t>(field)].DataPtr);
}

ULONG WINAPI FakeTraceEvent(TRACEHANDLE session, EVENT_TRACE_HEADER* header)
{
    if (session != kSession || header->Guid != ETWLogging::kMessageEventClass)
    {
        return ERROR_INVALID_HANDLE;
    }
    const auto& event = *reinterpret_cast<const ETWLogging::MessageEvent*>(header);
    const CNoMemory::CExempt exempt;
    const std::lock_guard lock(g_mutex);
    g_lines.push_back(
        {FieldAs<ULONG>(event, EventField::Level),
         TextOf(event, EventField::File),
         TextOf(event, EventField::Function),
         FieldAs<ULONG>(event, EventField::Line),
         TextOf(event, EventField::Message)});
    return ERROR_SUCCESS;
}

ULONG WINAPI FakeRegisterTraceGuidsW(
    WMIDPREQUEST callback,
    void* context,
    const GUID* /*provider*/,
    ULONG /*classCount*/,
    TRACE_GUID_REGISTRATION* /*classes*/,
    const wchar_t* /*imagePath*/,
    const wchar_t* /*resourceName*/,
    TRACEHANDLE* registration)
{
    *registration = kRegistration;
    WNODE_HEADER node{};
    ULONG size = sizeof(node);
    return callback(WMI_ENABLE_EVENTS, context, &size, &node);
}

TRACEHANDLE WINAPI FakeGetTraceLoggerHandle(void* /*buffer*/)
{
    return kSession;
}

UCHAR WINAPI FakeGetTraceEnableLevel(TRACEHANDLE /*session*/)
{
    return TRACE_LEVEL_VERBOSE;
}

ULONG WINAPI FakeGetTraceEnableFlags(TRACEHANDLE /*session*/)
{
    return 0;
}

ULONG WINAPI FakeUnregisterTraceGuids(TRACEHANDLE /*registration*/)
{
    return ERROR_SUCCESS;
}

} // namespace

void PrintTo(const LogLine& line, std::ostream* stream)
{
    *stream << line.level << ' ' << Narrow(line.function) << ": " << Narrow(line.message);
}

void InstallLogCapture()
{
    // Never taken out again: the logger lives until the process ends.
    static auto* const patches = new std::vector<std::unique_ptr<CImportPatch>>;
    patches->push_back(std::make_unique<CImportPatch>("RegisterTraceGuidsW", &FakeRegisterTraceGuidsW));
    patches->push_back(std::make_unique<CImportPatch>("UnregisterTraceGuids", &FakeUnregisterTraceGuids));
    patches->push_back(std::make_unique<CImportPatch>("GetTraceLoggerHandle", &FakeGetTraceLoggerHandle));
    patches->push_back(std::make_unique<CImportPatch>("GetTraceEnableLevel", &FakeGetTraceEnableLevel));
    patches->push_back(std::make_unique<CImportPatch>("GetTraceEnableFlags", &FakeGetTraceEnableFlags));
    patches->push_back(std::make_unique<CImportPatch>("TraceEvent", &FakeTraceEvent));
}

CLogCapture::CLogCapture()
{
    Clear();
}

void CLogCapture::Clear()
{
    const std::lock_guard lock(g_mutex);
    g_lines.clear();
}

std::vector<LogLine> CLogCapture::Lines() const
{
    const std::lock_guard lock(g_mutex);
    return g_lines;
}

std::size_t CLogCapture::Count(DWORD level, const std::wstring& message) const
{
    const std::vector<LogLine> lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.level == level && line.message == message;
    }));
}

std::size_t CLogCapture::CountContaining(DWORD level, const std::wstring& part) const
{
    const std::vector<LogLine> lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.level == level && line.message.find(part) != std::wstring::npos;
    }));
}

std::vector<std::wstring> CLogCapture::Messages() const
{
    std::vector<std::wstring> messages;
    for (const LogLine& line : Lines())
    {
        messages.push_back(line.message);
    }
    return messages;
}
