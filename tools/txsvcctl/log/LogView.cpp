#include "txsvcctl/log/LogView.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "TxLogSecurity.h"
#include "base/Owned.h"
#include "base/Text.h"
#include "contract/LogLevels.h"
#include "contract/LogNames.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/log/LogPrinter.h"
#include "txsvcctl/log/LogReader.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/log/TraceReader.h"

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> file; ///< UTF-8, from the command-line library, as the other texts
    std::optional<std::string> ini;
    std::optional<std::string> service;
    std::optional<std::string> since;
    DWORD level = 0;
    bool follow = false;
    bool json = false;
};

struct Log
{
    std::wstring path;
    DWORD oldFiles = 0;
};

Log ConfiguredLog(const std::optional<std::string>& ini, IConsole& console)
{
    const ETWLogging::LogSettings settings =
        (ini ? CLogStore(AbsolutePath(FromUtf8(*ini))) : CLogStore()).Settings();
    if (settings.mechanism != ETWLogging::kFileMechanism)
    {
        console.Error(L"Hosts log to event tracing; 'txsvcctl log set mechanism file' changes that.");
    }
    // The services' environment is expected to have the same folder there as that of this program.
    const std::wstring folder = settings.folder.empty() ? TxSdk::DefaultLogFolder() : settings.folder;
    const std::wstring file = settings.fileName.empty()
                                  ? ETWLogging::DefaultLogFileName(ETWLogging::kHostLogGroup)
                                  : settings.fileName;
    return {AbsolutePath(folder + L"\\" + file), settings.oldFiles};
}

/// Signalled by Ctrl+C and Ctrl+Break; never closed, since the system may call at any time.
HANDLE StopEvent() noexcept
{
    static const HANDLE s_stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return s_stop;
}

BOOL WINAPI OnControl(DWORD type) noexcept
{
    return (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT) && ::SetEvent(StopEvent());
}

CLogPrinter Printer(const Arguments& arguments, IConsole& console)
{
    if ((arguments.file && arguments.file->empty()) || (arguments.service && arguments.service->empty()))
    {
        ThrowUsage(L"an empty name of a file or service");
    }
    LogFilter filter;
    // A line has one name for both information levels, and the second travels as the first in events too.
    filter.level =
        arguments.level == ETWLogging::LogInformation2 ? ETWLogging::LogInformation : arguments.level;
    filter.service = OptionalFromUtf8(arguments.service);
    if (arguments.since)
    {
        filter.since = LogMoment::Parse(FromUtf8(*arguments.since));
    }
    return {filter, arguments.json, arguments.follow ? StopEvent() : nullptr, console};
}

/// What is there, then what is appended, until the printer wants no more. The log need not be there yet, its
/// folder must.
void Follow(const std::wstring& path, CLogReader& reader, CLogPrinter& printer)
{
    const std::wstring folder = path.substr(0, path.rfind(L'\\') + 1);
    // Before anything is read: what is written meanwhile is then noticed.
    const Basalt::CChangeNotification change(::FindFirstChangeNotificationW(
        folder.c_str(),
        FALSE,
        FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE));
    if (!change)
    {
        ThrowFailure(L"watch folder", folder, ::GetLastError());
    }
    const HANDLE handles[] = {StopEvent(), change.Get()};
    while (reader.ReadOn(false) || printer.EndPiece())
    {
        const DWORD signalled = ::WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        if (signalled == WAIT_OBJECT_0)
        {
            return;
        }
        if (signalled != WAIT_OBJECT_0 + 1 || !::FindNextChangeNotification(change.Get()))
        {
            ThrowFailure(L"watch folder", folder, ::GetLastError());
        }
    }
}

void ShowLog(const Arguments& arguments, IConsole& console)
{
    CLogPrinter printer = Printer(arguments, console);
    const Log log =
        arguments.file ? Log{AbsolutePath(FromUtf8(*arguments.file))} : ConfiguredLog(arguments.ini, console);
    CLogReader reader(log.path, log.oldFiles, printer);
    if (arguments.follow)
    {
        ::SetConsoleCtrlHandler(&OnControl, TRUE);
        Follow(log.path, reader, printer);
        return;
    }
    reader.ReadOn(true);
    if (!reader.HasFile())
    {
        ThrowFailure(L"read log", log.path, ERROR_FILE_NOT_FOUND);
    }
}

void ShowTrace(const Arguments& arguments, IConsole& console)
{
    CLogPrinter printer = Printer(arguments, console);
    const LeftOutEvents leftOut = ReadTrace(FromUtf8(arguments.file.value_or(std::string())), printer);
    if (leftOut.others != 0 || leftOut.damaged != 0)
    {
        console.Error(Basalt::FormatText(
            L"Left out: %u events of other providers, %u that could not be read.",
            leftOut.others,
            leftOut.damaged));
    }
}

void AddFilter(CLI::App& command, const std::shared_ptr<Arguments>& arguments)
{
    command.add_option("--level", arguments->level, "This level, 1 to 5, and above (6 counts as 3)")
        ->check(CLI::Range(
            static_cast<int>(ETWLogging::LogNormal), static_cast<int>(ETWLogging::LogInformation2)));
    command.add_option(
        "--service",
        arguments->service,
        "Entries with this name as a whole word in the message, in any case");
    command.add_option(
        "--since", arguments->since, "From 2026-11-24, \"2026-11-24 13:05:09\", or 15m, 2h, 3d ago");
    command.add_flag("--json", arguments->json, "Write one JSON object per entry");
}

} // namespace

void AddViewCommands(CLI::App& log, IConsole& console)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const show = log.add_subcommand("show", "Show the text log");
    show->add_option("file", arguments->file, "This file alone [the configured log with its older files]");
    show->add_option("--ini", arguments->ini, "The hosts' log.ini [beside this program]");
    show->add_flag("--follow", arguments->follow, "Go on with what is appended, until Ctrl+C");
    AddFilter(*show, arguments);
    show->callback([arguments, &console] { ShowLog(*arguments, console); });

    CLI::App* const trace = log.add_subcommand("trace", "Show the messages of an event trace file (.etl)");
    trace->add_option("file", arguments->file, "The file that a trace session wrote")->required();
    AddFilter(*trace, arguments);
    trace->callback([arguments, &console] { ShowTrace(*arguments, console); });
}

} // namespace TxCtl
