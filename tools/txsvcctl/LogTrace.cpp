#include "txsvcctl/LogTrace.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/Owned.h"
#include "base/Text.h"
#include "contract/EventRecord.h"
#include "contract/LogLine.h"
#include "logging/settings/LogSettingsReader.h"
#include "txsvcctl/LogShow.h"
#include "txsvcctl/ToolError.h"
#include "txsvcctl/Utf8.h"

using nlohmann::ordered_json;

namespace TxCtl
{

using ETWLogging::TraceMessage;

namespace
{

struct TraceTraits
{
    using Type = TRACEHANDLE;
    static Type Invalid() noexcept { return INVALID_PROCESSTRACE_HANDLE; }
    static void Close(Type value) noexcept { ::CloseTrace(value); }
};

struct Arguments
{
    std::string file; ///< UTF-8, from the command-line library, as the next one
    std::optional<std::string> since;
    ULONG level = 0;
    bool json = false;
};

SYSTEMTIME LocalTime(const LARGE_INTEGER& timeStamp)
{
    const FILETIME fileTime = {timeStamp.LowPart, static_cast<DWORD>(timeStamp.HighPart)};
    SYSTEMTIME universal{};
    SYSTEMTIME local{};
    ::FileTimeToSystemTime(&fileTime, &universal);
    ::SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local);
    return local;
}

ULONGLONG Units(const SYSTEMTIME& time)
{
    FILETIME units{};
    ::SystemTimeToFileTime(&time, &units);
    return ULONGLONG{units.dwHighDateTime} << 32 | units.dwLowDateTime;
}

std::wstring NameOfLevel(ULONG level)
{
    const wchar_t* const name = ETWLogging::LogLevelName(level);
    return name != nullptr ? name : std::to_wstring(level); // Events may carry any number.
}

std::wstring FormatLine(const SYSTEMTIME& time, const TraceMessage& message)
{
    std::wstring line = ETWLogging::BuildLogLine(
        {ETWLogging::kAllOptions,
         message.group.c_str(),
         message.processId,
         message.threadId,
         time,
         message.file.c_str(),
         message.line,
         message.function.c_str()},
        NameOfLevel(message.level).c_str(),
        message.message.c_str());
    line.erase(line.find_last_not_of(L"\r\n") + 1);
    return line;
}

std::wstring FormatJson(const SYSTEMTIME& time, const TraceMessage& message)
{
    const ordered_json entry = {
        {"time",
         ToUtf8(Basalt::FormatText(
             L"%04hu-%02hu-%02huT%02hu:%02hu:%02hu.%03hu",
             time.wYear,
             time.wMonth,
             time.wDay,
             time.wHour,
             time.wMinute,
             time.wSecond,
             time.wMilliseconds))},
        {"level", message.level},
        {"levelName", ToUtf8(NameOfLevel(message.level))},
        {"tag", ToUtf8(message.group)},
        {"process", message.processId},
        {"thread", message.threadId},
        {"source", ToUtf8(message.file)},
        {"line", message.line},
        {"function", ToUtf8(message.function)},
        {"message", ToUtf8(message.message)}};
    return FromUtf8(entry.dump());
}

/// Prints the events of one trace as the system hands them out, the oldest first.
class CTracePrinter
{
public:
    CTracePrinter(const Arguments& arguments, IConsole& console)
        : m_arguments(arguments), m_since(arguments.since ? ParseMoment(FromUtf8(*arguments.since)) : 0),
          m_console(console)
    {
    }

    void Print(const std::wstring& path)
    {
        std::wstring name = path;
        EVENT_TRACE_LOGFILEW trace{};
        trace.LogFileName = name.data();
        trace.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
        trace.EventRecordCallback = &CTracePrinter::onEvent;
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
        if (m_damaged != 0 || m_others != 0)
        {
            m_console.Error(Basalt::FormatText(
                L"Left out: %u events of other providers, %u that could not be read.", m_others, m_damaged));
        }
    }

private:
    /// Nothing may be thrown through the system's code.
    static void WINAPI onEvent(EVENT_RECORD* record) noexcept
    {
        auto& printer = *static_cast<CTracePrinter*>(record->UserContext);
        if (printer.m_failure)
        {
            return;
        }
        try
        {
            printer.print(*record);
        }
        catch (...)
        {
            printer.m_failure = std::current_exception();
        }
    }

    /// The class of an event of this kind stands where newer ones have their provider.
    void print(const EVENT_RECORD& record)
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
            ++m_others;
            return;
        }
        const std::optional<TraceMessage> message =
            ETWLogging::DecodeTraceMessage(static_cast<const BYTE*>(record.UserData), record.UserDataLength);
        if (!message)
        {
            ++m_damaged;
            return;
        }
        const SYSTEMTIME time = LocalTime(header.TimeStamp);
        if (message->level >= m_arguments.level && Units(time) >= m_since)
        {
            m_console.Out(m_arguments.json ? FormatJson(time, *message) : FormatLine(time, *message));
        }
    }

    const Arguments& m_arguments;
    ULONGLONG m_since; ///< local, in units of a FILETIME
    IConsole& m_console;
    std::exception_ptr m_failure;
    unsigned m_others = 0;
    unsigned m_damaged = 0;
};

} // namespace

void AddTraceCommand(CLI::App& log, IConsole& console)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const trace = log.add_subcommand("trace", "Print the messages of an event trace file (.etl)");
    trace->add_option("file", arguments->file, "The file that a trace session wrote")->required();
    trace->add_option("--level", arguments->level, "Only messages of this level and above");
    trace->add_option("--since", arguments->since, "Only messages from then on: as for show");
    trace->add_flag("--json", arguments->json, "Write one JSON object per message");
    trace->callback(
        [arguments, &console] { CTracePrinter(*arguments, console).Print(FromUtf8(arguments->file)); });
}

} // namespace TxCtl
