#include "support/FakeTrace.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "contract/EventRecord.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

using ETWLogging::MessageEvent;

namespace
{

constexpr TRACEHANDLE kSession = 0x7E57;

std::mutex g_mutex;
// Never destroyed: loggers live until the process ends.
auto& g_session = *new TraceSession;
auto& g_registered = *new std::map<TRACEHANDLE, std::pair<WMIDPREQUEST, void*>>;

ULONG Control(TRACEHANDLE registration, WMIDPREQUESTCODE code)
{
    const auto [callback, context] = g_registered.at(registration);
    WNODE_HEADER node{};
    ULONG size = sizeof(node);
    return callback(code, context, &size, &node);
}

/// An event that no reader would know, or that is not for this session, is lost.
ULONG WINAPI FakeTraceEvent(TRACEHANDLE session, EVENT_TRACE_HEADER* header)
{
    const CNoMemory::CExempt exempt;
    if (session != kSession || header->Guid != ETWLogging::kMessageEventClass ||
        header->Size != sizeof(MessageEvent) || header->Class.Type != ETWLogging::kMessageEventType ||
        header->Class.Version != ETWLogging::kMessageEventVersion ||
        header->Flags != (WNODE_FLAG_TRACED_GUID | WNODE_FLAG_USE_MOF_PTR))
    {
        return ERROR_INVALID_HANDLE;
    }
    std::wstring data; // The fields one after the other, as they stand in a trace.
    for (const MOF_FIELD& field : reinterpret_cast<const MessageEvent*>(header)->fields)
    {
        data.append(reinterpret_cast<const wchar_t*>(field.DataPtr), field.Length / sizeof(wchar_t));
    }
    const wchar_t* at = data.c_str();
    const auto number = [&at] { return at += 2, static_cast<DWORD>(MAKELONG(at[-2], at[-1])); };
    const auto text = [&at] {
        std::wstring field = at;
        at += field.size() + 1;
        return field;
    };
    const LogLine line = {
        number(), text(), text(), number(), text(), number(), number(), text(), header->Class.Level};
    const std::lock_guard lock(g_mutex);
    g_session.lines.push_back(line);
    return at == data.c_str() + data.size() ? g_session.status : ERROR_INVALID_DATA;
}

ULONG WINAPI FakeRegister(
    WMIDPREQUEST callback,
    void* context,
    const GUID* provider,
    ULONG classCount,
    TRACE_GUID_REGISTRATION* classes,
    const wchar_t* /*imagePath*/,
    const wchar_t* /*resourceName*/,
    TRACEHANDLE* registration)
{
    const CNoMemory::CExempt exempt;
    if (*provider != ETWLogging::kEventProvider || classCount != 1 ||
        *classes->Guid != ETWLogging::kMessageEventClass || g_session.status != ERROR_SUCCESS)
    {
        return g_session.status != ERROR_SUCCESS ? g_session.status : ERROR_INVALID_PARAMETER;
    }
    *registration = g_registered.empty() ? 1 : g_registered.rbegin()->first + 1;
    g_registered[*registration] = {callback, context};
    return g_session.isOn ? Control(*registration, WMI_ENABLE_EVENTS) : ERROR_SUCCESS;
}

} // namespace

void CFakeTrace::Install()
{
    static const auto* const patches = new CImportPatch[6]{
        {"RegisterTraceGuidsW", &FakeRegister},
        {"UnregisterTraceGuids",
         +[](TRACEHANDLE handle) -> ULONG {
             return g_registered.erase(handle) != 0 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
         }},
        {"GetTraceLoggerHandle", +[](void*) { return kSession; }},
        {"GetTraceEnableLevel", +[](TRACEHANDLE) { return g_session.level; }},
        {"GetTraceEnableFlags", +[](TRACEHANDLE) { return g_session.flags; }},
        {"TraceEvent", &FakeTraceEvent}};
    static_cast<void>(patches);
}

CFakeTrace::CFakeTrace()
{
    Clear();
}

CFakeTrace::~CFakeTrace()
{
    const std::lock_guard lock(g_mutex);
    g_session = {};
}

std::string CFakeTrace::Take()
{
    std::string text;
    for (const LogLine& line : Lines())
    {
        text += std::to_string(line.level) + " " + Narrow(line.function + L": " + line.message) + "\n";
    }
    Clear();
    return text;
}

std::vector<LogLine> CFakeTrace::Lines() const
{
    const std::lock_guard lock(g_mutex);
    return g_session.lines;
}

std::size_t CFakeTrace::Count(DWORD level, const std::wstring& part) const
{
    const std::lock_guard lock(g_mutex);
    return static_cast<std::size_t>(std::ranges::count_if(g_session.lines, [&](const LogLine& line) {
        return line.level == level && line.message.find(part) != std::wstring::npos;
    }));
}

void CFakeTrace::Clear()
{
    const std::lock_guard lock(g_mutex);
    g_session.lines.clear();
}

TraceSession& CFakeTrace::Session() const
{
    return g_session;
}

DWORD CFakeTrace::Tell(WMIDPREQUESTCODE code) const
{
    return Control(g_registered.rbegin()->first, code);
}

std::size_t CFakeTrace::Registered() const
{
    return g_registered.size();
}
