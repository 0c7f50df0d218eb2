#include "txsvcrun/Runner.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <thread>

#include "base/Stopwatch.h"
#include "process/ComApartment.h"
#include "proxy/TxSvcHostProxy.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcrun/ConsoleLog.h"
#include "txsvcrun/Explanation.h"
#include "txsvcrun/FaultWatch.h"
#include "txsvcrun/ManagerStandIn.h"

namespace TxRun
{

namespace
{

constexpr char kDescription[] =
    "Runs one service of the Tarvex Shared Service Host in this console, without the service manager.\n"
    "It is loaded and guarded as in the host, whose log is on the screen. Ctrl+C stops it, a second one ends "
    "it.";
constexpr char kFooter[] =
    "What follows the options (behind --, should it begin with a hyphen) is handed to the service:\n"
    "  txsvcrun --module MyService.dll --clsid {0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01} one two\n"
    "The exit code is the service's. NO_COLOR=1 leaves the colours out.";

/// What is to be run.
struct Options
{
    std::wstring path;
    std::wstring clsid;
    std::wstring service;
    std::vector<std::wstring> arguments;
};

TxCtl::IConsole* g_console = nullptr; ///< Set before anything runs.

void Tell(const std::wstring& text)
{
    g_console->Error(L"txsvcrun: " + text);
}

void TellUncaught(const std::wstring& fault)
{
    Tell(
        L"the process ends: " + fault +
        L", which nobody caught\nIt was on a thread that the service started, or in its control handler: in "
        L"the host all services of the group would end.");
}

std::wstring NameFrom(const std::wstring& path)
{
    const std::wstring file = path.substr(path.find_last_of(L"\\/:") + 1);
    return file.substr(0, file.rfind(L'.'));
}

/// The library ends its texts with a line feed, the console adds one.
std::wstring LinesOf(const std::string& text)
{
    std::wstring lines = TxCtl::FromUtf8(text);
    lines.erase(lines.find_last_not_of(L'\n') + 1);
    return lines;
}

std::vector<std::string> Reversed(const std::vector<std::wstring>& arguments)
{
    std::vector<std::string> reversed; // The library takes them from the back.
    for (auto argument = arguments.rbegin(); argument != arguments.rend(); ++argument)
    {
        reversed.push_back(TxCtl::ToUtf8(*argument));
    }
    return reversed;
}

/// @return false when there is nothing to run: help or the version was asked for, and is printed.
bool Parse(const std::vector<std::wstring>& arguments, Options& options)
{
    CLI::App app(kDescription, "txsvcrun");
    std::string module;
    std::string clsid;
    std::string service;
    app.allow_windows_style_options(false);
    app.prefix_command(); // All behind the first word that is no option is the service's.
    app.set_version_flag("--version", TX_VERSION);
    app.add_option("--module", module, "The service's DLL")->required();
    app.add_option("--clsid", clsid, "The CLSID of its class, in braces")->required();
    app.add_option("--service", service, "The service's name [that of the DLL]");
    app.footer(kFooter);
    try
    {
        app.parse(Reversed(arguments));
    }
    catch (const CLI::CallForHelp&)
    {
        g_console->Out(LinesOf(app.help()));
        return false;
    }
    catch (const CLI::CallForVersion& version)
    {
        g_console->Out(LinesOf(version.what()));
        return false;
    }
    catch (const CLI::ParseError& error)
    {
        TxCtl::ThrowUsage(TxCtl::FromUtf8(error.what()) + L"\nRun 'txsvcrun --help' for the usage.");
    }
    options.path = TxCtl::AbsolutePath(TxCtl::FromUtf8(module));
    options.clsid = TxCtl::CanonicalClsid(TxCtl::FromUtf8(clsid)).value_or(L"");
    if (options.clsid.empty())
    {
        TxCtl::ThrowUsage(L"'" + TxCtl::FromUtf8(clsid) + L"' is no CLSID in braces");
    }
    options.service = service.empty() ? NameFrom(options.path) : TxCtl::FromUtf8(service);
    TxCtl::CheckServiceName(options.service);
    for (const std::string& argument : app.remaining())
    {
        options.arguments.push_back(TxCtl::FromUtf8(argument));
    }
    if (!options.arguments.empty() && options.arguments.front() == L"--")
    {
        options.arguments.erase(options.arguments.begin()); // It only ended the options.
    }
    return true;
}

/// Of a service that was not loaded: Win32 errors as such.
DWORD ExitCodeOf(HRESULT failure)
{
    return static_cast<DWORD>(HRESULT_FACILITY(failure) == FACILITY_WIN32 ? HRESULT_CODE(failure) : failure);
}

/// After TxServiceMain has returned.
DWORD ExitCodeOf(const CTxSvcHostProxy::RunResult& result)
{
    if (result.failed)
    {
        Tell(
            result.code == ERROR_INVALID_OPERATION
                ? L"the service ended by a fault: " + FaultWatch::LastOnThisThread() +
                      L"\nIn the host it alone would have ended, with exit code 0."
                : L"the service returned a failure from TxServiceMain; the log has it");
        return result.code;
    }
    const SERVICE_STATUS status = ManagerStandIn::LastStatus();
    if (status.dwCurrentState != SERVICE_STOPPED)
    {
        Tell(
            L"the service returned without a report that it has stopped: the host's process would never end");
        return ERROR_SERVICE_SPECIFIC_ERROR;
    }
    const DWORD code = status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR
                           ? status.dwServiceSpecificExitCode
                           : status.dwWin32ExitCode;
    const std::wstring meaning = ExplainExitCode(code);
    if (!meaning.empty())
    {
        Tell(meaning);
    }
    return code;
}

/// On the service's thread, which is set up as the host's are.
DWORD RunService(Options& options)
{
    ::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL);
    const Basalt::CStopwatch sinceStart;
    CServiceStart::CList starts;
    const CServiceStart start(starts, options.service.c_str());
    const CComApartment com;
    CLSID clsid{};
    CSubsystemHolder holder;
    if (!CTxSvcHostProxy::ConvertStringToCLSID(options.clsid, clsid))
    {
        return ERROR_INVALID_PARAMETER;
    }
    EventLog::Failure failure;
    const HRESULT loaded =
        CTxSvcHostProxy::LoadSubsystem(options.service, options.path, clsid, holder, failure);
    if (holder.Interface() == nullptr)
    {
        Tell(ExplainLoad(loaded, options.path, options.clsid));
        return ExitCodeOf(FAILED(loaded) ? loaded : E_POINTER);
    }
    ManagerStandIn::TakeCallsOf(holder.Module());

    std::vector<wchar_t*> argv{options.service.data()};
    for (std::wstring& argument : options.arguments)
    {
        argv.push_back(argument.data());
    }
    const auto argc = static_cast<DWORD>(argv.size());
    argv.push_back(nullptr);
    return ExitCodeOf(CTxSvcHostProxy::RunSubsystem(start, sinceStart, holder, argc, argv.data()));
}

DWORD Run(const std::vector<std::wstring>& arguments)
{
    Options options;
    if (!Parse(arguments, options))
    {
        return ERROR_SUCCESS;
    }
    // As in the host: a damaged module fails to load instead of putting up a box.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    ConsoleLog::Begin(*g_console);
    FaultWatch::Begin(&TellUncaught);
    ManagerStandIn::Begin(options.service);
    DWORD exitCode = ERROR_SUCCESS;
    std::thread([&] { exitCode = RunService(options); }).join();
    return exitCode;
}

} // namespace

DWORD RunTool(const std::vector<std::wstring>& arguments, TxCtl::IConsole& console) noexcept
try
{
    g_console = &console;
    return Run(arguments);
}
catch (const TxCtl::CToolError& error)
{
    Tell(error.Text());
    return static_cast<DWORD>(error.Code());
}
catch (const std::exception& error)
{
    Tell(TxCtl::FromUtf8(error.what()));
    return ERROR_OUTOFMEMORY;
}

} // namespace TxRun
