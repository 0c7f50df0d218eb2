/// @file
/// How long a hosted service takes from StartServiceW to SERVICE_RUNNING, beside the least a service can do:
///
///     start_latency [--rounds N] [--warmup N] [--json] SERVICE...
///
/// The services named (installed, stopped) and BareService are started and stopped in turn, so that whatever
/// else the machine does meets all of them alike. The first rounds warm up and are not counted. BareService
/// is installed for the run. Every start is one of a new process.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "base/Text.h"
#include "support/Errors.h"
#include "support/Installation.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr double kTimeoutSeconds = 30;
constexpr wchar_t kBareName[] = L"TxBareService";

struct Options
{
    unsigned rounds = 20;
    unsigned warmUps = 3;
    bool json = false;
    std::vector<std::wstring> services;
};

struct Series
{
    std::wstring service;
    std::vector<double> milliseconds;
};

struct Summary
{
    double median;
    double mean;
    double min;
    double max;
};

bool ParseCount(const wchar_t* text, unsigned least, unsigned& count)
{
    wchar_t* end = nullptr;
    const unsigned long value = std::wcstoul(text, &end, 10);
    count = static_cast<unsigned>(value);
    return end != text && *end == L'\0' && value >= least && value <= 100000;
}

bool ParseOptions(int argc, wchar_t** argv, Options& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring argument = argv[i];
        const bool hasNext = i + 1 < argc;
        if (argument == L"--json")
        {
            options.json = true;
        }
        else if (argument == L"--rounds" && hasNext && ParseCount(argv[i + 1], 1, options.rounds))
        {
            ++i;
        }
        else if (argument == L"--warmup" && hasNext && ParseCount(argv[i + 1], 0, options.warmUps))
        {
            ++i;
        }
        else if (argument.empty() || argument[0] == L'-')
        {
            return false;
        }
        else
        {
            options.services.push_back(argument);
        }
    }
    return !options.services.empty();
}

/// Waits without a pause, for the clock's sake: a sleep would be longer than what is measured.
/// @throws std::runtime_error when the service takes another road or too long.
void AwaitState(SC_HANDLE service, const std::wstring& name, DWORD wanted, DWORD pending)
{
    const Basalt::CStopwatch watch;
    SERVICE_STATUS status{};
    do
    {
        if (!::QueryServiceStatus(service, &status))
        {
            ThrowError(L"QueryServiceStatus(" + name + L")", ::GetLastError());
        }
        if (status.dwCurrentState == wanted)
        {
            return;
        }
        ::Sleep(0);
    } while (status.dwCurrentState == pending && watch.Seconds() < kTimeoutSeconds);
    ThrowError(
        name + L" should be " + TxCtl::StateName({wanted}) + L" but is " +
        TxCtl::StateName({status.dwCurrentState}) + L", exit code " +
        std::to_wstring(status.dwWin32ExitCode));
}

/// Starts and stops the service once; the next start finds neither the service nor its process.
/// @return milliseconds from StartServiceW to SERVICE_RUNNING.
double MeasureStart(const std::wstring& name)
{
    const Basalt::CServiceHandle service =
        OpenServiceByName(name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    if (!service)
    {
        ThrowError(L"OpenServiceW(" + name + L")", ::GetLastError());
    }
    const Basalt::CStopwatch watch;
    if (!::StartServiceW(service.Get(), 0, nullptr))
    {
        ThrowError(L"StartServiceW(" + name + L")", ::GetLastError());
    }
    AwaitState(service.Get(), name, SERVICE_RUNNING, SERVICE_START_PENDING);
    const double milliseconds = watch.Seconds() * 1000;

    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE, FALSE, QueryService(name).dwProcessId));
    SERVICE_STATUS status{};
    if (!::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status))
    {
        ThrowError(L"ControlService(" + name + L")", ::GetLastError());
    }
    if (!WaitForServiceState(name, SERVICE_STOPPED, static_cast<DWORD>(kTimeoutSeconds * 1000)))
    {
        ThrowError(name + L" does not stop");
    }
    if (process &&
        ::WaitForSingleObject(process.Get(), static_cast<DWORD>(kTimeoutSeconds * 1000)) != WAIT_OBJECT_0)
    {
        ThrowError(L"the process of " + name + L" does not end");
    }
    return milliseconds;
}

/// The entry of the service to compare with.
class CBareService
{
public:
    CBareService()
    {
        RemoveService(kBareName);
        const std::wstring path = L"\"" + BesideTest(L"BareService.exe") + L"\"";
        const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
        const Basalt::CServiceHandle service(::CreateServiceW(
            manager.Get(),
            kBareName,
            kBareName,
            SERVICE_ALL_ACCESS,
            SERVICE_WIN32_OWN_PROCESS,
            SERVICE_DEMAND_START,
            SERVICE_ERROR_IGNORE,
            path.c_str(),
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr));
        ThrowIfFailed(service ? ERROR_SUCCESS : ::GetLastError(), L"creating the service to compare with");
    }
    ~CBareService() { RemoveService(kBareName); }
    CBareService(const CBareService&) = delete;
    CBareService& operator=(const CBareService&) = delete;
};

std::vector<Series> Measure(const Options& options)
{
    std::vector<Series> all;
    for (const std::wstring& name : options.services)
    {
        all.push_back({name, {}});
    }
    all.push_back({kBareName, {}});
    const CBareService bare;
    for (unsigned round = 0; round < options.warmUps + options.rounds; ++round)
    {
        for (Series& series : all)
        {
            const double milliseconds = MeasureStart(series.service);
            if (round >= options.warmUps)
            {
                series.milliseconds.push_back(milliseconds);
            }
        }
    }
    return all;
}

Summary Summarise(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    const bool isEven = values.size() % 2 == 0;
    return {
        isEven ? (values[middle - 1] + values[middle]) / 2 : values[middle],
        std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size()),
        values.front(),
        values.back()};
}

void Print(const std::wstring& text)
{
    std::fputs(Narrow(text).c_str(), stdout);
}

void PrintTable(const std::vector<Series>& all, const Options& options)
{
    const double bareMedian = Summarise(all.back().milliseconds).median;
    Print(Basalt::FormatText(
        L"StartServiceW to SERVICE_RUNNING in milliseconds, %u rounds after %u to warm up\n\n"
        L"  %-24s %9s %9s %9s %9s %9s\n",
        options.rounds,
        options.warmUps,
        L"SERVICE",
        L"MEDIAN",
        L"MEAN",
        L"MIN",
        L"MAX",
        L"RATIO"));
    for (const Series& series : all)
    {
        const Summary summary = Summarise(series.milliseconds);
        Print(Basalt::FormatText(
            L"  %-24s %9.2f %9.2f %9.2f %9.2f %9.2f\n",
            series.service.c_str(),
            summary.median,
            summary.mean,
            summary.min,
            summary.max,
            summary.median / bareMedian));
    }
    Print(L"\nRatio: median over the median of " + std::wstring(kBareName) + L".\n");
}

/// Service names hold no control characters, so these two are all that needs care.
std::wstring Quoted(const std::wstring& text)
{
    std::wstring quoted = L"\"";
    for (const wchar_t character : text)
    {
        quoted += character == L'"' || character == L'\\' ? L"\\" : L"";
        quoted += character;
    }
    return quoted + L"\"";
}

void PrintJson(const std::vector<Series>& all, const Options& options)
{
    const double bareMedian = Summarise(all.back().milliseconds).median;
    Print(Basalt::FormatText(
        L"{\n  \"unit\": \"ms\",\n  \"rounds\": %u,\n  \"warmup\": %u,\n  \"baseline\": %s,\n  \"services\": "
        L"[",
        options.rounds,
        options.warmUps,
        Quoted(kBareName).c_str()));
    for (const Series& series : all)
    {
        const Summary summary = Summarise(series.milliseconds);
        Print(Basalt::FormatText(
            L"%s\n    {\"name\": %s, \"median\": %.3f, \"mean\": %.3f, \"min\": %.3f, \"max\": %.3f, "
            L"\"ratio\": %.3f, \"values\": [",
            &series == &all.front() ? L"" : L",",
            Quoted(series.service).c_str(),
            summary.median,
            summary.mean,
            summary.min,
            summary.max,
            summary.median / bareMedian));
        for (std::size_t i = 0; i < series.milliseconds.size(); ++i)
        {
            Print(Basalt::FormatText(L"%s%.3f", i == 0 ? L"" : L", ", series.milliseconds[i]));
        }
        Print(L"]}");
    }
    Print(L"\n  ]\n}\n");
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
    {
        std::fputs("usage: start_latency [--rounds N] [--warmup N] [--json] SERVICE...\n", stderr);
        return kExitUsage;
    }
    try
    {
        const std::vector<Series> all = Measure(options);
        options.json ? PrintJson(all, options) : PrintTable(all, options);
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "start_latency: %s\n", failure.what());
        return kExitFailure;
    }
}
