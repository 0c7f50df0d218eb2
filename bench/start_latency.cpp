/// @file
/// What a start costs beside the least that a service can be, in time and in what then is held:
///
///     start_latency [--rounds N] [--groups N,N,...] [--json FILE]
///     start_latency --once bare|com|pool|host    one start and stop, to be looked at from outside
///     start_latency --check                 fails when a host holds more than it did
///
/// "start" is StartServiceW to SERVICE_RUNNING under the real manager, for BareService without and
/// with /com and /com /pool and a host with one service, in turn, so that whatever else the machine does
/// meets all of them alike. "groups" is a group of N services in one host beside N processes of BareService
/// /com, each started by a stand-in for the manager: from the first process on until all run. bench/run pins
/// all of it to one processor.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Figures.h"
#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"

using nlohmann::ordered_json;

namespace
{

constexpr DWORD kTimeoutMs = 30000;

struct Options
{
    int rounds = 15;
    std::vector<int> groups = {1, 8, 64};
    std::wstring json; ///< The file to write, beside the table.
    bool check = false;
    std::wstring once;
};

std::vector<int> ParseCounts(const std::wstring& text)
{
    std::vector<int> counts;
    std::wistringstream stream(text);
    for (std::wstring piece; std::getline(stream, piece, L',');)
    {
        counts.push_back(std::stoi(piece));
    }
    return counts;
}

std::optional<Options> ParseOptions(int argc, wchar_t** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring name = argv[i];
        const bool hasValue = i + 1 < argc;
        if (name == L"--check")
        {
            options.check = true;
        }
        else if (name == L"--rounds" && hasValue)
        {
            options.rounds = std::max(1, std::stoi(argv[++i]));
        }
        else if (name == L"--groups" && hasValue)
        {
            options.groups = ParseCounts(argv[++i]);
        }
        else if (name == L"--json" && hasValue)
        {
            options.json = argv[++i];
        }
        else if (name == L"--once" && hasValue)
        {
            options.once = argv[++i];
        }
        else
        {
            return std::nullopt;
        }
    }
    return options;
}

/// Starts and stops the service once under the manager.
Figures MeasureStart(const std::wstring& name, const std::string& program)
{
    const Basalt::CServiceHandle service =
        OpenServiceByName(name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    const Basalt::CStopwatch watch;
    if (!::StartServiceW(service.Get(), 0, nullptr))
    {
        ThrowError(L"StartServiceW(" + name + L")", ::GetLastError());
    }
    AwaitRunning(name);
    Figures figures{.milliseconds = watch.Seconds() * 1000};

    const DWORD processId = QueryService(name).dwProcessId;
    ::Sleep(1500); // What a start leaves for later is held too.
    figures.Add(processId);
    figures.pageFaults = PageFaultsOf(program);
    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE, FALSE, processId));
    SERVICE_STATUS status{};
    ::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status);
    if (!WaitForServiceState(name, SERVICE_STOPPED, kTimeoutMs) ||
        ::WaitForSingleObject(process.Get(), kTimeoutMs) != WAIT_OBJECT_0)
    {
        ThrowError(name + L" does not end");
    }
    return figures;
}

constexpr wchar_t kBare[] = L"TxBenchBare";
constexpr wchar_t kCom[] = L"TxBenchCom";
constexpr wchar_t kPool[] = L"TxBenchPool";

ordered_json ToJson(const Figures& figures)
{
    ordered_json json;
    for (const auto& [name, member] : kFigures)
    {
        json[name] = figures.*member;
    }
    return json;
}

/// Also what the product's first start has made.
void InstallGroup(CInstallation& installation, int count)
{
    SetCommonFiles();
    installation.AddGroup(L"TxBench", BenchSubsystems(count));
    CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true);
}

void InstallSingle(CInstallation& installation)
{
    InstallGroup(installation, 1);
    installation.AddService(kBare, BareImage(L""));
    installation.AddService(kCom, BareImage(L"/com"));
    installation.AddService(kPool, BareImage(L"/com /pool"));
}

ordered_json MeasureStarts(int rounds)
{
    CInstallation installation;
    InstallSingle(installation);
    std::vector<Figures> all[4];
    std::vector<double> ratios, poolRatios;
    for (int round = -2; round < rounds; ++round) // The first ones warm up.
    {
        const Figures seen[] = {
            MeasureStart(kBare, "BareService"),
            MeasureStart(kCom, "BareService"),
            MeasureStart(L"TxBench1", "TxSvHost"),
            MeasureStart(kPool, "BareService")};
        for (std::size_t i = 0; i < std::size(seen) && round >= 0; ++i)
        {
            all[i].push_back(seen[i]);
        }
        if (round >= 0)
        {
            ratios.push_back(seen[2].milliseconds / seen[1].milliseconds);
            poolRatios.push_back(seen[2].milliseconds / seen[3].milliseconds);
        }
    }
    return {
        {"bare", ToJson(Median(all[0]))},
        {"com", ToJson(Median(all[1]))},
        {"host", ToJson(Median(all[2]))},
        {"pool", ToJson(Median(all[3]))},
        {"timeRatio", Median(ratios)},
        {"timeRatioToPool", Median(poolRatios)}};
}

ordered_json MeasureGroups(int count, int rounds)
{
    CInstallation installation;
    InstallGroup(installation, count);
    std::vector<std::wstring> hosted, own;
    std::wstring together = L"/com";
    for (int i = 1; i <= count; ++i)
    {
        hosted.push_back(L"TxBench" + std::to_wstring(i));
        own.push_back(L"TxBenchOwn" + std::to_wstring(i));
        installation.AddService(own.back(), BareImage(L"/com"));
        together += L" " + own.back();
    }
    std::vector<Figures> all[3];
    for (int round = -1; round < rounds; ++round)
    {
        const Figures ours = MeasureGroup(hosted, {HostImage(L"TxBench")}, "TxSvHost");
        const Figures theirs = MeasureGroup(
            own, std::vector(static_cast<std::size_t>(count), BareImage(L"/com")), "BareService");
        const Figures least = MeasureGroup(own, {BareImage(together)}, "BareService");
        if (round >= 0)
        {
            all[0].push_back(ours);
            all[1].push_back(theirs);
            all[2].push_back(least);
        }
    }
    const Figures ours = Median(all[0]), theirs = Median(all[1]), least = Median(all[2]);
    const auto lessThreads = [](const Figures& figures) {
        return figures.privateKiB - figures.threads * kThreadKiB;
    };
    return {
        {"services", count},
        {"host", ToJson(ours)},
        {"processes", ToJson(theirs)},
        {"bareTogether", ToJson(least)},
        {"timeRatio", ours.milliseconds / theirs.milliseconds},
        {"bareTimeRatio", least.milliseconds / theirs.milliseconds},
        {"memoryRatio", lessThreads(ours) / lessThreads(theirs)},
        {"hostKiBLessThreads", lessThreads(ours)}};
}

void PrintRow(const std::string& name, const ordered_json& figures)
{
    std::printf("  %-28s", name.c_str());
    for (const auto& [key, member] : kFigures)
    {
        std::printf(key == kFigures[0].first ? " %10.2f" : " %10.0f", figures[key].get<double>());
    }
    std::printf("\n");
}

void PrintTable(const ordered_json& report)
{
    std::printf(
        "  %-28s %10s %10s %10s %10s %10s %10s\n", "", "ms", "KiB", "faults", "threads", "handles", "DLLs");
    for (const char* const name : {"bare", "com", "pool", "host"})
    {
        PrintRow(std::string("one service: ") + name, report["start"][name]);
    }
    std::printf(
        "    time, host to com: %.2f, to pool: %.2f\n",
        report["start"]["timeRatio"].get<double>(),
        report["start"]["timeRatioToPool"].get<double>());
    for (const ordered_json& group : report["groups"])
    {
        const std::string count = std::to_string(group["services"].get<int>());
        PrintRow(count + " in one host", group["host"]);
        PrintRow(count + " processes", group["processes"]);
        PrintRow(count + " in one bare process", group["bareTogether"]);
        std::printf(
            "    host to processes: time %.3f (bare process %.3f), memory less threads %.3f (%.0f KiB)\n",
            group["timeRatio"].get<double>(),
            group["bareTimeRatio"].get<double>(),
            group["memoryRatio"].get<double>(),
            group["hostKiBLessThreads"].get<double>());
    }
}

void Once(const std::wstring& what)
{
    CInstallation installation;
    InstallSingle(installation);
    static_cast<void>(
        what == L"bare"   ? MeasureStart(kBare, "BareService")
        : what == L"com"  ? MeasureStart(kCom, "BareService")
        : what == L"pool" ? MeasureStart(kPool, "BareService")
                          : MeasureStart(L"TxBench1", "TxSvHost"));
}

/// What does not vary: a DLL or a thread more is a decision, not an accident.
bool IsWithinLimits()
{
    constexpr Figures kMost{
        .milliseconds = 0,
        .privateKiB = 0,
        .pageFaults = 0,
        .threads = 7, // Main, dispatcher, service, RPC, timer queue, wait, pool worker.
        .handles = 60,
        .dlls = 19}; // With the hosted one.
    CInstallation installation;
    InstallSingle(installation);
    bool isWithin = false;
    // On a busy machine two of the pool's callbacks may fall together, and it keeps a second worker for a
    // while: what is too much counts when it comes each time.
    for (int attempt = 0; attempt < 3 && !isWithin; ++attempt)
    {
        const Figures host = MeasureStart(L"TxBench1", "TxSvHost");
        std::printf("threads %.0f, handles %.0f, DLLs %.0f\n", host.threads, host.handles, host.dlls);
        isWithin = host.threads <= kMost.threads && host.handles <= kMost.handles && host.dlls <= kMost.dlls;
    }
    std::printf("%s\n", isWithin ? "It holds no more than it should." : "It holds more than it should.");
    return isWithin;
}

int Run(const Options& options)
{
    if (!options.once.empty())
    {
        Once(options.once);
        return 0;
    }
    if (options.check)
    {
        return IsWithinLimits() ? 0 : 1;
    }
    ordered_json report = {{"start", MeasureStarts(options.rounds)}, {"groups", ordered_json::array()}};
    for (const int count : options.groups)
    {
        report["groups"].push_back(MeasureGroups(count, std::max(1, options.rounds / count)));
    }
    PrintTable(report);
    if (!options.json.empty())
    {
        std::ofstream(std::filesystem::path(options.json)) << report.dump(2) << '\n';
    }
    return 0;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    try
    {
        const std::optional<Options> options = ParseOptions(argc, argv);
        if (options)
        {
            return Run(*options);
        }
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "start_latency: %s\n", failure.what());
        return 1;
    }
    std::fputs(
        "usage: start_latency [--rounds N] [--groups N,N,...] [--json FILE] | --once bare|com|pool|host | "
        "--check\n",
        stderr);
    return 2;
}
