#include "logging/events/EventLogger.h"

#include <cwchar>
#include <exception>
#include <iterator>

#include "contract/EventRecord.h"

namespace ETWLogging
{

namespace
{

/// Windows' number for a level, by which all viewers show how severe an event is; 0 for one without a name.
UCHAR WindowsLevel(DWORD level) noexcept
{
    constexpr UCHAR kLevels[] = {
        TRACE_LEVEL_NONE,
        TRACE_LEVEL_VERBOSE,
        TRACE_LEVEL_WARNING,
        TRACE_LEVEL_INFORMATION,
        TRACE_LEVEL_ERROR,
        TRACE_LEVEL_CRITICAL,
        TRACE_LEVEL_INFORMATION};
    return level < std::size(kLevels) ? kLevels[level] : UCHAR{TRACE_LEVEL_NONE};
}

/// The threshold that a session asks for with its level; 0 for none.
DWORD ThresholdFor(UCHAR windowsLevel) noexcept
{
    // Information passes in any case, so what Windows has between warnings and verbose adds nothing.
    constexpr DWORD kThresholds[] = {0, LogCritical, LogError, LogWarning, LogWarning};
    return windowsLevel < std::size(kThresholds) ? kThresholds[windowsLevel] : DWORD{LogNormal};
}

void SetField(MessageEvent& event, EventField field, const void* data, std::size_t size) noexcept
{
    MOF_FIELD& entry = event.fields[static_cast<std::size_t>(field)];
    entry.DataPtr = reinterpret_cast<ULONG64>(data);
    entry.Length = static_cast<ULONG>(size);
}

void SetText(MessageEvent& event, EventField field, const wchar_t* text) noexcept
{
    const wchar_t* const present = text == nullptr ? L"" : text;
    SetField(event, field, present, (std::wcslen(present) + 1) * sizeof(wchar_t));
}

} // namespace

CETWLogging::~CETWLogging()
{
    static_cast<void>(CETWLogging::Stop());
}

DWORD CETWLogging::Initialize(
    const wchar_t* group, DWORD context2, const wchar_t* host, DWORD reserved) noexcept
{
    return InitializeEx(nullptr, group, context2, host, reserved);
}

DWORD CETWLogging::InitializeEx(
    void* /*context*/,
    const wchar_t* group,
    DWORD /*context2*/,
    const wchar_t* host,
    DWORD /*reserved*/) noexcept
try
{
    m_group = group == nullptr ? L"" : group;
    m_host = host == nullptr ? L"" : host;
    m_threshold = m_settings.threshold;
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CETWLogging::Start() noexcept
{
    if (m_started)
    {
        return ERROR_SUCCESS;
    }
    const Basalt::CLockGuard guard(m_lock);
    if (m_started)
    {
        return ERROR_SUCCESS; // Another thread came first.
    }
    TRACE_GUID_REGISTRATION eventClass{&kMessageEventClass, nullptr};
    const ULONG status = ::RegisterTraceGuidsW(
        &CETWLogging::onControl, this, &kEventProvider, 1, &eventClass, nullptr, nullptr, &m_registration);
    m_started = status == ERROR_SUCCESS;
    updateGate();
    return status;
}

DWORD CETWLogging::Stop() noexcept
{
    const Basalt::CLockGuard guard(m_lock);
    if (!m_started)
    {
        return ERROR_SUCCESS;
    }
    // No callback comes, nor is one still running, when this returns; the callback does not take this lock.
    const ULONG status = ::UnregisterTraceGuids(m_registration);
    m_registration = 0;
    m_started = false;
    endSession();
    return status;
}

void CETWLogging::endSession() noexcept
{
    m_session = 0;
    m_sessionThreshold = 0;
    m_sessionFlags = 0;
    updateGate();
}

ULONG WINAPI
CETWLogging::onControl(WMIDPREQUESTCODE code, void* context, ULONG* /*size*/, void* buffer) noexcept
{
    auto& logger = *static_cast<CETWLogging*>(context);
    if (code == WMI_DISABLE_EVENTS)
    {
        logger.endSession();
        return ERROR_SUCCESS;
    }
    if (code != WMI_ENABLE_EVENTS)
    {
        return ERROR_INVALID_PARAMETER;
    }
    ::SetLastError(ERROR_SUCCESS);
    const TRACEHANDLE session = ::GetTraceLoggerHandle(buffer);
    if (session == reinterpret_cast<TRACEHANDLE>(INVALID_HANDLE_VALUE))
    {
        return ::GetLastError();
    }
    logger.m_sessionThreshold = ThresholdFor(::GetTraceEnableLevel(session));
    logger.m_sessionFlags = ::GetTraceEnableFlags(session);
    logger.m_session = session; // Last: whoever sees the session sees its threshold and flags.
    logger.updateGate();
    return ERROR_SUCCESS;
}

void CETWLogging::SetThreshold(DWORD level) noexcept
{
    m_threshold = level;
    updateGate();
}

void CETWLogging::SetLevelGate(CLevelGate* gate) noexcept
{
    {
        const Basalt::CLockGuard guard(m_gateLock);
        m_gate = gate;
    }
    updateGate();
}

/// Whoever comes last has seen the newest state: the lock makes looking and closing one step.
void CETWLogging::updateGate() noexcept
{
    const Basalt::CLockGuard guard(m_gateLock);
    if (m_gate == nullptr)
    {
        return;
    }
    DWORD closed = 0;
    for (DWORD level = 0; level < CLevelGate::kLevels && m_started; ++level)
    {
        if (m_session == 0 || IsLevelEnabled(level) == 0 || !isWantedBySession(level))
        {
            closed |= 1U << level;
        }
    }
    m_gate->Close(closed);
}

DWORD CETWLogging::GetThreshold() const noexcept
{
    const DWORD sessionThreshold = m_sessionThreshold;
    return sessionThreshold != 0 ? sessionThreshold : m_threshold.load();
}

DWORD CETWLogging::IsLevelEnabled(DWORD level) const noexcept
{
    return level >= GetThreshold() || level == LogInformation ? 1 : 0;
}

bool CETWLogging::isWantedBySession(DWORD level) const noexcept
{
    const DWORD flags = m_sessionFlags;
    if (flags == 0 || level < LogNormal || level > LogInformation2 || level == LogInformation)
    {
        return true; // Information reaches every session, and what has no name passes as it is.
    }
    return (flags >> (level - 1) & 1U) != 0;
}

DWORD CETWLogging::Log(
    const wchar_t* file, const wchar_t* function, DWORD line, DWORD level, const wchar_t* message) noexcept
{
    return LogEx(level, file, function, line, message);
}

DWORD CETWLogging::LogEx(
    DWORD level, const wchar_t* file, const wchar_t* function, DWORD line, const wchar_t* message) noexcept
{
    const TRACEHANDLE session = m_session;
    if (session == 0 || !isWantedBySession(level))
    {
        return ERROR_SUCCESS;
    }
    const ULONG carriedLevel = level == LogInformation2 ? ULONG{LogInformation} : level;
    const ULONG carriedLine = line;
    const ULONG processId = m_processId;
    const ULONG threadId = ::GetCurrentThreadId();

    MessageEvent event{};
    event.header.Size = sizeof(event);
    event.header.Flags = WNODE_FLAG_TRACED_GUID | WNODE_FLAG_USE_MOF_PTR;
    event.header.Guid = kMessageEventClass;
    event.header.Class.Type = kMessageEventType;
    event.header.Class.Level = WindowsLevel(level);
    event.header.Class.Version = kMessageEventVersion;
    SetField(event, EventField::Level, &carriedLevel, sizeof(carriedLevel));
    SetText(event, EventField::File, file);
    SetText(event, EventField::Function, function);
    SetField(event, EventField::Line, &carriedLine, sizeof(carriedLine));
    SetText(event, EventField::Group, m_group.c_str());
    SetField(event, EventField::ProcessId, &processId, sizeof(processId));
    SetField(event, EventField::ThreadId, &threadId, sizeof(threadId));
    SetText(event, EventField::Message, message);
    return ::TraceEvent(session, &event.header);
}

} // namespace ETWLogging
