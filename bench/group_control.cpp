/// @file
/// What the control of a group from another process costs:
///
///     group_control_bench [--rounds N] [--calls N] [--held N] [--creates N] [--json]
///
/// The stop: from the call of TxStopSvcSubsystem to its return and on to the end of the host's process, for a
/// group of one and of eight services, the median of --rounds runs. Wine's manager runs each service in a
/// host process of its own, of which one is asked and stops all; with the stand-in for the manager all
/// services run in one process, but a stop of each is refused, and they run until the process ends.
///
/// A call: a manager object's creation with the class object at hand, and for scale a call that does nothing,
/// --calls of each. The host looks for the caller's module each time and checks its signature; these two are
/// measured alone, in this process.
///
/// Memory: what the host keeps of --held calls that make no object and of --creates that make one, and what
/// an object is worth in this process. Give --creates 100000 an hour or two on Wine.
#include <windows.h>
#include <objbase.h>
#include <psapi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "HandleCount.h"
#include "base/ClassObject.h"
#include "base/ModuleFinder.h"
#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "base/TrustedModule.h"
#include "control/TxSvcSubsystemControlManager.h"
#include "control/TxSvcSubsystemControlManagerClassFactory.h"
#include "support/Errors.h"
#include "support/GroupControl.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/TestFolder.h"

namespace
{

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr DWORD kTimeoutMs = 60000;

struct Options
{
    unsigned rounds = 5;
    unsigned calls = 1000;
    unsigned held = 100000;
    unsigned creates = 1000;
    bool json = false;
};

struct Timing
{
    std::string name;
    std::vector<double> milliseconds;
};

/// A process's memory in bytes, and its handles.
struct Holdings
{
    long long privateBytes;
    long long workingSet;
    long long handles;
};

struct Growth
{
    std::string name;
    unsigned calls;
    Holdings before;
    Holdings after;
};

struct Report
{
    std::vector<Timing> timings;
    std::vector<Growth> growths;
};

bool ParseOptions(int argc, wchar_t** argv, Options& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring name = argv[i];
        if (name == L"--json")
        {
            options.json = true;
            continue;
        }
        unsigned* const value = name == L"--rounds"    ? &options.rounds
                                : name == L"--calls"   ? &options.calls
                                : name == L"--held"    ? &options.held
                                : name == L"--creates" ? &options.creates
                                                       : nullptr;
        ++i;
        if (value == nullptr || i == argc)
        {
            return false;
        }
        *value = std::wcstoul(argv[i], nullptr, 10);
        if (*value == 0)
        {
            return false;
        }
    }
    return true;
}

std::vector<TestSubsystem> Services(int count)
{
    std::vector<TestSubsystem> services;
    for (int i = 1; i <= count; ++i)
    {
        services.push_back(
            {L"TxBenchGc" + std::to_wstring(i),
             L"{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01}",
             BesideTest(L"MinimalSubsystem.dll")});
    }
    return services;
}

/// Stops the group of the host that answers and waits for the end of its process.
void MeasureStop(Timing& call, Timing& end)
{
    const GroupControl control = ConnectToControl();
    DWORD processId = 0;
    const Basalt::CStopwatch watch;
    const HRESULT result = control.Get()->TxStopSvcSubsystem(0, &processId);
    const double answered = watch.Seconds();
    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE, FALSE, processId));
    if (SUCCEEDED(result) || !process || ::WaitForSingleObject(process.Get(), kTimeoutMs) != WAIT_OBJECT_0)
    {
        ThrowError(L"the host does not end", static_cast<DWORD>(result));
    }
    const double ended = watch.Seconds();
    call.milliseconds.push_back(answered * 1000);
    end.milliseconds.push_back((ended - answered) * 1000);
}

/// With the real manager: a host process for each service.
void StopProcesses(const std::vector<TestSubsystem>& services, Timing& call, Timing& end)
{
    for (const TestSubsystem& entry : services)
    {
        const Basalt::CServiceHandle service = OpenServiceByName(entry.service, SERVICE_START);
        if (!::StartServiceW(service.Get(), 0, nullptr) ||
            !WaitForServiceState(entry.service, SERVICE_RUNNING, kTimeoutMs))
        {
            ThrowError(L"starting " + entry.service, ::GetLastError());
        }
    }
    MeasureStop(call, end);
    for (const TestSubsystem& entry : services)
    {
        if (!WaitForServiceState(entry.service, SERVICE_STOPPED, kTimeoutMs))
        {
            ThrowError(entry.service + L" was not stopped");
        }
    }
}

/// With the stand-in: one host process for all services.
void StopProcess(
    const std::wstring& command, const std::vector<TestSubsystem>& services, Timing& call, Timing& end)
{
    CGroupRunner host(command);
    for (const TestSubsystem& entry : services)
    {
        host.StartAndWait(entry.service);
    }
    MeasureStop(call, end);
}

void MeasureStops(const Options& options, Report& report)
{
    for (const int count : {1, 8})
    {
        const std::string services = std::to_string(count) + (count == 1 ? " service" : " services");
        Timing rows[] = {
            {services + ", a process each: call", {}},
            {services + ", a process each: then end", {}},
            {services + " in one process, refusing: call", {}},
            {services + " in one process, refusing: then end", {}}};
        for (unsigned round = 0; round < options.rounds; ++round)
        {
            const std::vector<TestSubsystem> entries = Services(count);
            CInstallation installation;
            const std::wstring command = installation.AddGroup(L"TxBenchGc", entries);
            ForgetClassObjects();
            StopProcesses(entries, rows[0], rows[1]);
            ForgetClassObjects();
            StopProcess(command, entries, rows[2], rows[3]);
        }
        report.timings.insert(report.timings.end(), std::begin(rows), std::end(rows));
    }
}

void Expect(HRESULT result, HRESULT expected, const wchar_t* call)
{
    if (result != expected)
    {
        ThrowError(call, static_cast<DWORD>(result));
    }
}

Timing MeasureCalls(const char* name, unsigned count, const std::function<void()>& call)
{
    Timing timing{name, {}};
    call(); // The first makes what later ones find.
    for (unsigned i = 0; i < count; ++i)
    {
        const Basalt::CStopwatch watch;
        call();
        timing.milliseconds.push_back(watch.Seconds() * 1000);
    }
    return timing;
}

Holdings HoldingsOf(HANDLE process)
{
    PROCESS_MEMORY_COUNTERS counters{};
    ::GetProcessMemoryInfo(process, &counters, sizeof(counters));
    return {
        static_cast<long long>(counters.PagefileUsage),
        static_cast<long long>(counters.WorkingSetSize),
        static_cast<long long>(CountHandles(::GetProcessId(process)))};
}

Growth MeasureGrowth(const char* name, HANDLE process, unsigned count, const std::function<void()>& call)
{
    constexpr unsigned kWarmUps = 50;
    for (unsigned i = 0; i < kWarmUps; ++i)
    {
        call();
    }
    const Holdings before = HoldingsOf(process);
    for (unsigned i = 0; i < count; ++i)
    {
        call();
    }
    return {name, count, before, HoldingsOf(process)};
}

void MeasureObjects(const Options& options, Report& report)
{
    CInstallation installation;
    const std::wstring command = installation.AddGroup(L"TxBenchGc", Services(1));
    ForgetClassObjects();
    CGroupRunner host(command);
    host.StartAndWait(L"TxBenchGc1");
    {
        const ClassObject classObject = ConnectToHost();
        const GroupControl control = ConnectToControl();
        void* object = nullptr;
        const auto create = [&] {
            Expect(
                classObject.Get()->CreateObject(IID_ITxSvcSubsystemControlManager, &object), S_OK, L"create");
            static_cast<IUnknown*>(object)->Release();
        };
        const auto createOther = [&] {
            Expect(
                classObject.Get()->CreateObject(IID_ITxSvcClassObject, &object),
                E_NOINTERFACE,
                L"create another");
        };
        const auto reserved = [&] { Expect(control.Get()->Reserved(), E_NOTIMPL, L"Reserved"); };
        report.timings.push_back(MeasureCalls("create a manager", options.calls, create));
        report.timings.push_back(MeasureCalls("Reserved()", options.calls, reserved));
        const void* const proxyCode = Basalt::MethodOf(control.Get(), 0);
        std::wstring path;
        report.timings.push_back(MeasureCalls("here: find a caller's module", options.calls, [&] {
            Expect(static_cast<HRESULT>(Basalt::FindModuleOfAddress(proxyCode, path)), S_OK, L"find");
        }));
        report.timings.push_back(MeasureCalls("here: check its signature", options.calls, [&] {
            Expect(static_cast<HRESULT>(Basalt::CheckTrustedModule(path)), S_OK, L"check");
        }));

        report.growths.push_back(MeasureGrowth("host: Reserved()", host.Process(), options.held, reserved));
        report.growths.push_back(
            MeasureGrowth("host: creates that fail", host.Process(), options.creates, createOther));
        report.growths.push_back(MeasureGrowth("host: creates", host.Process(), options.creates, create));
        CoTxSvcSubsystemControlManagerClassFactory factory;
        report.growths.push_back(
            MeasureGrowth("here: creates", ::GetCurrentProcess(), options.held, [&factory, &object] {
                Expect(
                    factory.CreateObjectUnguarded(IID_ITxSvcSubsystemControlManager, &object),
                    S_OK,
                    L"create here");
                static_cast<IUnknown*>(object)->Release();
            }));
    }
    host.Stop(L"TxBenchGc1");
}

/// @param part 0 for the least, 1 for the most.
double Quantile(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(std::lround(part * static_cast<double>(values.size() - 1)))];
}

double BytesPerCall(const Growth& growth)
{
    return static_cast<double>(growth.after.privateBytes - growth.before.privateBytes) / growth.calls;
}

void PrintTable(const Report& report)
{
    std::printf("  %-48s %7s %10s %10s %10s %10s\n", "MILLISECONDS", "COUNT", "MEDIAN", "P99", "MIN", "MAX");
    for (const Timing& timing : report.timings)
    {
        std::printf(
            "  %-48s %7zu %10.3f %10.3f %10.3f %10.3f\n",
            timing.name.c_str(),
            timing.milliseconds.size(),
            Quantile(timing.milliseconds, 0.5),
            Quantile(timing.milliseconds, 0.99),
            Quantile(timing.milliseconds, 0),
            Quantile(timing.milliseconds, 1));
    }
    std::printf(
        "\n  Of the time to the end one second is the host's pause for the answer. A stop that a service "
        "does\n"
        "  not finish at once takes a second at least: so often the state is asked.\n"
        "\n  %-26s %7s %21s %21s %15s %10s\n",
        "MEMORY",
        "CALLS",
        "PRIVATE KiB",
        "WORKING SET KiB",
        "HANDLES",
        "BYTES/CALL");
    for (const Growth& growth : report.growths)
    {
        std::printf(
            "  %-26s %7u %9lld -> %8lld %9lld -> %8lld %6lld -> %5lld %10.1f\n",
            growth.name.c_str(),
            growth.calls,
            growth.before.privateBytes / 1024,
            growth.after.privateBytes / 1024,
            growth.before.workingSet / 1024,
            growth.after.workingSet / 1024,
            growth.before.handles,
            growth.after.handles,
            BytesPerCall(growth));
    }
}

void PrintJson(const Report& report)
{
    std::printf("{\n  \"unit\": \"ms\",\n  \"timings\": [");
    for (const Timing& timing : report.timings)
    {
        std::printf(
            "%s\n    {\"name\": \"%s\", \"count\": %zu, \"median\": %.4f, \"p99\": %.4f, \"min\": %.4f, "
            "\"max\": "
            "%.4f}",
            &timing == report.timings.data() ? "" : ",",
            timing.name.c_str(),
            timing.milliseconds.size(),
            Quantile(timing.milliseconds, 0.5),
            Quantile(timing.milliseconds, 0.99),
            Quantile(timing.milliseconds, 0),
            Quantile(timing.milliseconds, 1));
    }
    std::printf("\n  ],\n  \"memory\": [");
    for (const Growth& growth : report.growths)
    {
        std::printf(
            "%s\n    {\"name\": \"%s\", \"calls\": %u, \"privateBytes\": [%lld, %lld], \"workingSet\": "
            "[%lld, "
            "%lld], \"handles\": [%lld, %lld], \"bytesPerCall\": %.2f}",
            &growth == report.growths.data() ? "" : ",",
            growth.name.c_str(),
            growth.calls,
            growth.before.privateBytes,
            growth.after.privateBytes,
            growth.before.workingSet,
            growth.after.workingSet,
            growth.before.handles,
            growth.after.handles,
            BytesPerCall(growth));
    }
    std::printf("\n  ]\n}\n");
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options) || FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
    {
        std::fputs(
            "usage: group_control_bench [--rounds N] [--calls N] [--held N] [--creates N] [--json]\n",
            stderr);
        return kExitUsage;
    }
    try
    {
        Report report;
        const CProxyRegistration proxies(SignedProxies(L"tarvex"));
        MeasureStops(options, report);
        MeasureObjects(options, report);
        options.json ? PrintJson(report) : PrintTable(report);
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "group_control_bench: %s\n", failure.what());
        return kExitFailure;
    }
}
