#include "txsvcctl/log/TraceReader.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <exception>
#include <optional>
#include <utility>

#include "base/Owned.h"
#include "contract/EventRecord.h"
#include "contract/LogLevels.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/log/LogMoment.h"

namespace TxCtl
{

namespace
{

struct TraceTraits
{
    using Type = TRACEHANDLE;
    static Type Invalid() noexcept { return INVALID_PROCESSTRACE_HANDLE; }
    static void Close(Type value) noexcept { ::CloseTrace(value); }
};

class CTraceReader
{
public:
    explicit CTraceReader(ILogSink& sink) noexcept : m_sink(sink) {}

    LeftOutEvents Read(const std::wstring& path)
    {
        std::wstring name = path;
        EVENT_TRACE_LOGFILEW trace{};
        trace.LogFileName = name.data();
        trace.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
        trace.EventRecordCallback = &CTraceReader::onEvent;
        trace.Context = this;
        Basalt::COwned<TraceTraits> handle(::OpenTraceW(&trace));
        if (!handle)
        {
            ThrowFailure(L"open trace", path, ::GetLastError());
        }
        TRACEHANDLE raw = handle.Get();
        const ULONG status = ::ProcessTrace(&raw, 1, nullptr, nullptr);
        if (m_failure)
        {
            std::rethrow_exception(m_failure);
        }
        CheckStatus(status, L"read trace", path);
        return m_leftOut;
    }

private:
    /// Nothing may be thrown through the system's code.
    static void WINAPI onEvent(EVENT_RECORD* record) noexcept
    {
        auto& reader = *static_cast<CTraceReader*>(record->UserContext);
        if (reader.m_isDone)
        {
            return;
        }
        try
        {
            reader.hand(*record);
        }
        catch (...)
        {
            reader.m_failure = std::current_exception();
            reader.m_isDone = true;
        }
    }

    /// The class of an event of this kind stands where newer ones have their provider.
    void hand(const EVENT_RECORD& record)
    {
        // The system begins each file with an event of its own about the session.
        constexpr GUID kSystemClass = {
            0x68FDD900, 0x4A3E, 0x11D1, {0x84, 0xF4, 0x00, 0x00, 0xF8, 0x04, 0x64, 0xE3}};
        const EVENT_HEADER& header = record.EventHeader;
        if (header.ProviderId == kSystemClass)
        {
            return;
        }
        if (header.ProviderId != ETWLogging::kMessageEventClass ||
            header.EventDescriptor.Opcode != ETWLogging::kMessageEventType ||
            header.EventDescriptor.Version != ETWLogging::kMessageEventVersion)
        {
            ++m_leftOut.others;
            return;
        }
        std::optional<LogEntry> entry =
            ETWLogging::DecodeMessageEvent(static_cast<const BYTE*>(record.UserData), record.UserDataLength);
        if (!entry)
        {
            ++m_leftOut.damaged;
            return;
        }
        entry->time = LocalTime(static_cast<ULONGLONG>(header.TimeStamp.QuadPart));
        entry->hasMilliseconds = true;
        m_sink.Add(*std::move(entry));
        m_isDone = !m_sink.EndPiece();
    }

    ILogSink& m_sink;
    std::exception_ptr m_failure;
    bool m_isDone = false;
    LeftOutEvents m_leftOut;
};

} // namespace

LeftOutEvents ReadTrace(const std::wstring& path, ILogSink& sink)
{
    return CTraceReader(sink).Read(path);
}

} // namespace TxCtl
