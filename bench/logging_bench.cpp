/// @file
/// What a log call costs: for a level that nobody wants beside an empty virtual call, as an event, and as a
/// line of the text file beside a bare open, append and close of the same bytes (both with a mutex around
/// them, and both without); with many threads and processes; and how much memory each allocates.
///
///     logging_bench [--json]
///
/// What is compared is measured in turn within one run, in blocks, and the ratio is the median of the
/// blocks' ratios. There is no event session under Wine: one is played at the calls.
#include <windows.h>
#include <evntrace.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "logging/BasaltLogHandler.h"
#include "logging/Log.h"
#include "logging/LoggerHolder.h"
#include "logging/text/TextLogger.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"

using namespace ETWLogging;
using nlohmann::ordered_json;

namespace
{

constexpr wchar_t kLogSource[] = L"logging_bench";
constexpr wchar_t kFunction[] = L"CSomeClass::SomeOperation";

std::atomic<ULONGLONG> s_allocated = 0;

} // namespace

void* operator new(std::size_t size)
{
    s_allocated.fetch_add(size, std::memory_order_relaxed);
    void* const memory = std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace
{

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Comparison
{
    double measured; ///< Seconds a call, the median of the blocks.
    double bare;
    double ratio;
};

/// Runs both in turn.
template <typename Measured, typename Bare>
Comparison Compare(int blocks, int callsPerBlock, Measured measured, Bare bare)
{
    std::vector<double> seconds[2];
    std::vector<double> ratios;
    for (int block = -1; block < blocks; ++block) // The first one warms up.
    {
        const auto time = [callsPerBlock](auto& run) {
            const Basalt::CStopwatch watch;
            for (int i = 0; i < callsPerBlock; ++i)
            {
                run();
            }
            return watch.Seconds() / callsPerBlock;
        };
        const double first = time(measured);
        const double second = time(bare);
        if (block >= 0)
        {
            seconds[0].push_back(first);
            seconds[1].push_back(second);
            ratios.push_back(first / second);
        }
    }
    return {Median(seconds[0]), Median(seconds[1]), Median(ratios)};
}

template <typename Call>
double AllocatedBy(Call call)
{
    constexpr int kCalls = 100;
    const ULONGLONG before = s_allocated;
    for (int i = 0; i < kCalls; ++i)
    {
        call();
    }
    return static_cast<double>(s_allocated - before) / kCalls;
}

// The session: threshold LogError, all flags.

constexpr TRACEHANDLE kSession = 1;

ULONG WINAPI PlayRegisterTraceGuids(
    WMIDPREQUEST callback,
    void* context,
    const GUID* /*provider*/,
    ULONG /*classCount*/,
    TRACE_GUID_REGISTRATION* /*classes*/,
    const wchar_t* /*imagePath*/,
    const wchar_t* /*resourceName*/,
    TRACEHANDLE* registration)
{
    *registration = kSession;
    WNODE_HEADER node{};
    ULONG size = sizeof(node);
    return callback(WMI_ENABLE_EVENTS, context, &size, &node);
}

TRACEHANDLE WINAPI PlayGetTraceLoggerHandle(void* /*buffer*/)
{
    return kSession;
}

UCHAR WINAPI PlayGetTraceEnableLevel(TRACEHANDLE /*session*/)
{
    return TRACE_LEVEL_ERROR;
}

ULONG WINAPI PlayGetTraceEnableFlags(TRACEHANDLE /*session*/)
{
    return 0;
}

ULONG WINAPI PlayTraceEvent(TRACEHANDLE /*session*/, EVENT_TRACE_HEADER* /*header*/)
{
    return ERROR_SUCCESS;
}

struct Empty
{
    virtual ~Empty() = default;
    virtual void Call(DWORD level) = 0;
};
struct EmptyCall final : Empty
{
    void Call(DWORD /*level*/) override {}
};

void MeasureEvents(ordered_json& report)
{
    constexpr int kBlocks = 15;
    constexpr int kCalls = 2'000'000;
    constexpr int kEventCalls = 20'000;
    const CImportPatch patches[] = {
        {"RegisterTraceGuidsW", &PlayRegisterTraceGuids},
        {"GetTraceLoggerHandle", &PlayGetTraceLoggerHandle},
        {"GetTraceEnableLevel", &PlayGetTraceEnableLevel},
        {"GetTraceEnableFlags", &PlayGetTraceEnableFlags},
        {"TraceEvent", &PlayTraceEvent}};
    EmptyCall empty;
    Empty* volatile hidden = &empty; // The compiler must not see where the call goes.
    Empty* const object = hidden;
    const std::wstring text = L"of a service";
    const auto disabled = [&text] { TX_LOG(LogWarning, kFunction, L"A message %s %u", text, 7); };
    const auto enabled = [&text] { TX_LOG(LogError, kFunction, L"A message %s %u", text, 7); };
    enabled(); // Makes the logger, which registers with the session.

    const Comparison result = Compare(kBlocks, kCalls, disabled, [object] { object->Call(LogWarning); });
    report["disabledLevel"] = {
        {"nanoseconds", result.measured * 1e9},
        {"emptyVirtualCallNanoseconds", result.bare * 1e9},
        {"ratio", result.ratio},
        {"bytesAllocated", AllocatedBy(disabled)}};
    const Comparison event = Compare(kBlocks, kEventCalls, enabled, [object] { object->Call(LogError); });
    report["event"] = {{"nanoseconds", event.measured * 1e9}, {"bytesAllocated", AllocatedBy(enabled)}};
}

/// The file logger behind the formatting that the process's facade does.
class CFileLog
{
public:
    explicit CFileLog(const std::wstring& folder, bool useMutex = true)
    {
        auto logger = std::make_unique<CLogging>(ReadLogSettings());
        logger->Initialize(L"bench", 0, nullptr, 0);
        logger->SetFolder(folder.c_str());
        logger->SetOptions(kAllOptions);
        logger->SetMutexEnabled(useMutex);
        logger->Activate();
        m_builder.logger = std::move(logger);
        m_holder.Create(m_builder, {});
    }

    DWORD Write(const wchar_t* format, ...)
    {
        va_list arguments{};
        va_start(arguments, format);
        const DWORD status = m_holder.Write(LogError, kLogSource, kFunction, 123, format, arguments);
        va_end(arguments);
        return status;
    }

private:
    struct Builder final : CLogBuilderIf
    {
        bool Build(
            const wchar_t* /*group*/,
            DWORD /*context2*/,
            const wchar_t* /*host*/,
            DWORD /*mechanism*/,
            std::unique_ptr<CLoggingIf>& out,
            const ILogConfigReader* /*config*/) noexcept override
        {
            out = std::move(logger);
            return true;
        }
        std::unique_ptr<CLoggingIf> logger;
    };

    Builder m_builder;
    CLoggerHolder m_holder{BasaltLogHandler()};
};

DWORD WriteOne(CFileLog& log)
{
    return log.Write(L"A message %s %u", L"of a service", 7);
}

bool AppendBare(const std::wstring& path, const std::wstring& line)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(),
        FILE_APPEND_DATA | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_ALWAYS,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    DWORD written = 0;
    return file &&
           ::WriteFile(
               file.Get(), line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
}

/// The last line that was written, byte for byte.
std::wstring LastLine(const std::wstring& path)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    std::wstring text(::GetFileSize(file.Get(), nullptr) / sizeof(wchar_t), L'\0');
    DWORD read = 0;
    ::ReadFile(file.Get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &read, nullptr);
    return text.substr(text.rfind(L'\n', text.size() - 2) + 1);
}

bool WriteFromThreads(CFileLog& log, int threads, int lines)
{
    std::atomic<DWORD> failed = 0;
    std::vector<std::jthread> running;
    running.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i)
    {
        running.emplace_back([&log, &failed, lines] {
            for (int line = 0; line < lines; ++line)
            {
                failed += WriteOne(log) == ERROR_SUCCESS ? 0 : 1;
            }
        });
    }
    running.clear();
    return failed == 0;
}

/// With the mutex, as processes share the file, and without it.
bool MeasureLine(ordered_json& report, const char* name, bool useMutex)
{
    constexpr int kBlocks = 21;
    constexpr int kLines = 200;
    const CTestFolder folder;
    CFileLog log(folder.Path(), useMutex);
    bool passed = WriteFromThreads(log, 1, 2); // The first line of a file has its mark.
    const std::wstring line = LastLine(folder.File(L"bench.log"));
    const std::wstring bare = folder.File(L"bare.log");
    const auto write = [&] { passed = WriteOne(log) == ERROR_SUCCESS && passed; };
    CLogMutex mutex;
    passed = (!useMutex || mutex.Create(bare) == ERROR_SUCCESS) && passed;
    const Comparison result = Compare(kBlocks, kLines, write, [&] {
        const CLogMutex::CHold hold(mutex, INFINITE);
        passed = AppendBare(bare, line) && passed;
    });
    report[name] = {
        {"microseconds", result.measured * 1e6},
        {"bareMicroseconds", result.bare * 1e6},
        {"ratio", result.ratio},
        {"bytes", line.size() * sizeof(wchar_t)},
        {"bytesAllocated", AllocatedBy(write)}};
    return passed;
}

/// What the mutex's wait and release alone cost.
void MeasureMutex(ordered_json& report)
{
    constexpr int kCalls = 4000;
    CLogMutex mutex;
    static_cast<void>(mutex.Create(L"C:\\logging_bench"));
    const Basalt::CStopwatch watch;
    for (int i = 0; i < kCalls; ++i)
    {
        const CLogMutex::CHold hold(mutex, INFINITE);
    }
    report["mutex"] = {{"microseconds", watch.Seconds() / kCalls * 1e6}};
}

constexpr int kLinesInAll = 4800;

bool MeasureThreads(ordered_json& report)
{
    bool passed = true;
    for (const int threads : {1, 4, 16})
    {
        const CTestFolder folder;
        CFileLog log(folder.Path());
        WriteOne(log);
        const Basalt::CStopwatch watch;
        passed = WriteFromThreads(log, threads, kLinesInAll / threads) && passed;
        const double microseconds = watch.Seconds() / kLinesInAll * 1e6;
        report["threads"].push_back({{"threads", threads}, {"microsecondsALine", microseconds}});
    }
    return passed;
}

constexpr wchar_t kGoEvent[] = L"TxLoggingBenchGo";

int WriteAsChild(const std::wstring& folder, int lines)
{
    CFileLog log(folder);
    const Basalt::CHandle go(::OpenEventW(SYNCHRONIZE, FALSE, kGoEvent));
    const Basalt::CHandle ready(::OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, L"TxLoggingBenchReady"));
    ::ReleaseSemaphore(ready.Get(), 1, nullptr);
    ::WaitForSingleObject(go.Get(), INFINITE);
    return WriteFromThreads(log, 1, lines) ? 0 : 1;
}

bool MeasureProcesses(ordered_json& report, const std::wstring& program)
{
    bool passed = true;
    for (const int count : {1, 4})
    {
        const CTestFolder folder;
        const Basalt::CHandle go(::CreateEventW(nullptr, TRUE, FALSE, kGoEvent));
        const Basalt::CHandle ready(::CreateSemaphoreW(nullptr, 0, count, L"TxLoggingBenchReady"));
        std::vector<Basalt::CHandle> processes;
        for (int i = 0; i < count; ++i)
        {
            std::wstring command = L"\"" + program + L"\" --child \"" + folder.Path() + L"\" " +
                                   std::to_wstring(kLinesInAll / count);
            STARTUPINFOW startup{};
            startup.cb = sizeof(startup);
            PROCESS_INFORMATION process{};
            passed = ::CreateProcessW(
                         nullptr,
                         command.data(),
                         nullptr,
                         nullptr,
                         FALSE,
                         0,
                         nullptr,
                         nullptr,
                         &startup,
                         &process) &&
                     ::WaitForSingleObject(ready.Get(), 30000) == WAIT_OBJECT_0 && passed;
            ::CloseHandle(process.hThread);
            processes.emplace_back(process.hProcess);
        }
        const Basalt::CStopwatch watch;
        ::SetEvent(go.Get());
        for (const Basalt::CHandle& process : processes)
        {
            DWORD exitCode = 1;
            ::WaitForSingleObject(process.Get(), INFINITE);
            passed = ::GetExitCodeProcess(process.Get(), &exitCode) && exitCode == 0 && passed;
        }
        const double microseconds = watch.Seconds() / kLinesInAll * 1e6;
        report["processes"].push_back({{"processes", count}, {"microsecondsALine", microseconds}});
    }
    return passed;
}

double Number(const ordered_json& report, const char* key)
{
    return report[key].get<double>();
}

void PrintTable(const ordered_json& report)
{
    const ordered_json& disabled = report["disabledLevel"];
    const ordered_json& event = report["event"];
    std::printf("%-32s %12s %12s %8s %16s\n", "", "time", "bare", "ratio", "bytes allocated");
    std::printf(
        "%-32s %9.2f ns %9.2f ns %8.2f %16.0f\n",
        "disabled level, virtual call",
        Number(disabled, "nanoseconds"),
        Number(disabled, "emptyVirtualCallNanoseconds"),
        Number(disabled, "ratio"),
        Number(disabled, "bytesAllocated"));
    std::printf(
        "%-32s %9.0f ns %12s %8s %16.0f\n",
        "event, session played",
        Number(event, "nanoseconds"),
        "",
        "",
        Number(event, "bytesAllocated"));
    for (const char* const name : {"line", "lineWithoutMutex"})
    {
        const ordered_json& line = report[name];
        std::printf(
            "%-32s %9.1f us %9.1f us %8.2f %16.0f\n",
            name,
            Number(line, "microseconds"),
            Number(line, "bareMicroseconds"),
            Number(line, "ratio"),
            Number(line, "bytesAllocated"));
    }
    std::printf("%-32s %9.1f us\n", "wait for and release a mutex", Number(report["mutex"], "microseconds"));
    for (const char* const kind : {"threads", "processes"})
    {
        for (const ordered_json& row : report[kind])
        {
            const std::string name = "lines of " + row[kind].dump() + " " + kind;
            std::printf("%-32s %9.1f us\n", name.c_str(), Number(row, "microsecondsALine"));
        }
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"--child" && argc == 4)
    {
        return WriteAsChild(argv[2], static_cast<int>(std::wcstol(argv[3], nullptr, 10)));
    }
    if (argc > 2 || (argc == 2 && mode != L"--json"))
    {
        std::fputs("usage: logging_bench [--json]\n", stderr);
        return 2;
    }
    ordered_json report;
    MeasureEvents(report);
    bool passed = MeasureLine(report, "line", true);
    passed = MeasureLine(report, "lineWithoutMutex", false) && passed;
    MeasureMutex(report);
    passed = MeasureThreads(report) && passed;
    passed = MeasureProcesses(report, BesideTest(L"logging_bench.exe")) && passed;
    if (mode == L"--json")
    {
        std::printf("%s\n", report.dump(2).c_str());
    }
    else
    {
        PrintTable(report);
    }
    if (!passed)
    {
        std::fprintf(stderr, "Something failed: the figures above mean nothing.\n");
    }
    return passed ? 0 : 1;
}
