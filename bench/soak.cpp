/// @file
/// Starts and stops services again and again, and looks at what is left behind each time:
///
///     soak [--length CYCLES] [--seed N] [--json FILE] [--only manager|process]
///
/// - under the real manager, a hundredth of the cycles: a process for each, whose figures must not change
/// from
///   one to the next, nor the registry's;
/// - in one process, by a stand-in for the manager: services that work, fail, throw, crash and unload, in
///   random order, some running side by side. Handles, memory, threads, modules and the registry are looked
///   at eleven times, when one service alone runs.
///
/// A curve is flat when the straight line that fits it best does not rise, from its first point to its last,
/// by more than three times what the scatter of the points around it makes uncertain, or than a floor for
/// figures that hardly scatter (kFloors).
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

#include "Figures.h"
#include "HandleCount.h"
#include "Proof.h"
#include "Random.h"
#include "ServiceRecord.h"
#include "base/Owned.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"
#include "support/Narrow.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;
constexpr int kParts = 10;
constexpr unsigned long long kLongCycles = 1000;
constexpr unsigned long long kForOneUnderTheManager = 100;
const std::vector<std::string> kColumns = {
    "cycle", "handles", "private KiB", "threads", "modules", "registry values", "registry bytes"};
/// In the order of the columns. A mebibyte: what the heap of a process moves by on its own.
constexpr double kFloors[] = {0, 2, 1024, 0.5, 0.5, 0, 64};

/// What stands below a key.
struct RegistrySize
{
    double values = 0;
    double bytes = 0;

    void Add(HKEY root, const wchar_t* path)
    {
        HKEY key = nullptr;
        if (::RegOpenKeyExW(root, path, REG_OPTION_OPEN_LINK, KEY_READ, &key) != ERROR_SUCCESS)
        {
            return;
        }
        wchar_t name[512];
        DWORD length = static_cast<DWORD>(std::size(name));
        DWORD size = 0;
        for (DWORD i = 0;
             ::RegEnumValueW(key, i, name, &length, nullptr, nullptr, nullptr, &size) == ERROR_SUCCESS;
             ++i)
        {
            ++values;
            bytes += static_cast<double>(size + length * sizeof(wchar_t));
            length = static_cast<DWORD>(std::size(name));
        }
        length = static_cast<DWORD>(std::size(name));
        for (DWORD i = 0;
             ::RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
             ++i)
        {
            bytes += static_cast<double>(length * sizeof(wchar_t));
            Add(key, name);
            length = static_cast<DWORD>(std::size(name));
        }
        ::RegCloseKey(key);
    }
};

/// @param isWhole with all classes, which takes long.
RegistrySize SizeOfRegistry(bool isWhole)
{
    RegistrySize size;
    size.Add(HKEY_LOCAL_MACHINE, isWhole ? L"Software" : L"Software\\Wow6432Node");
    size.Add(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Services");
    size.Add(HKEY_CURRENT_USER, L"Software");
    return size;
}

/// What was seen, and whether it grows.
class CCurve
{
public:
    explicit CCurve(unsigned long long cycles) : m_isWhole(cycles >= kLongCycles) {}

    void Add(unsigned long long cycle, DWORD processId)
    {
        Figures figures;
        figures.Add(processId);
        const RegistrySize registry = SizeOfRegistry(m_isWhole);
        m_rows.push_back(
            {static_cast<double>(cycle),
             figures.handles,
             std::floor(figures.privateKiB),
             figures.threads,
             figures.dlls,
             registry.values,
             registry.bytes});
        // Also from a run that is broken off something is to be learnt.
        std::printf("  cycle %llu:", cycle);
        for (std::size_t i = 1; i < kColumns.size(); ++i)
        {
            std::printf(
                " %s %.0f%s", kColumns[i].c_str(), m_rows.back()[i], i + 1 < kColumns.size() ? "," : "\n");
        }
        std::fflush(stdout);
    }

    void Report(const std::string& name, CProof& proof) const
    {
        proof.AddTable(name, kColumns, m_rows);
        for (std::size_t column = 1; column < kColumns.size() && m_rows.size() > 2; ++column)
        {
            const auto [growth, uncertain] = fit(column);
            proof.SetFigure(name + ": growth, " + kColumns[column], growth);
            if (growth > std::max(kFloors[column], 3 * uncertain))
            {
                proof.AddFault(
                    name + ": " + kColumns[column] + " grow by " + std::to_string(growth) +
                    ", uncertain by " + std::to_string(uncertain));
            }
        }
    }

private:
    /// From the first point to the last, by the best straight line, and its standard error.
    [[nodiscard]] std::pair<double, double> fit(std::size_t column) const
    {
        const auto count = static_cast<double>(m_rows.size());
        double x = 0, y = 0, xx = 0, xy = 0, scatter = 0;
        for (const std::vector<double>& row : m_rows)
        {
            x += row[0] / count;
            y += row[column] / count;
        }
        for (const std::vector<double>& row : m_rows)
        {
            xx += (row[0] - x) * (row[0] - x);
            xy += (row[0] - x) * (row[column] - y);
        }
        const double slope = xx == 0 ? 0 : xy / xx;
        for (const std::vector<double>& row : m_rows)
        {
            const double off = row[column] - y - slope * (row[0] - x);
            scatter += off * off;
        }
        const double span = m_rows.back()[0] - m_rows.front()[0];
        return {slope * span, xx == 0 ? 0 : std::sqrt(scatter / (count - 2) / xx) * span};
    }

    bool m_isWhole;
    std::vector<std::vector<double>> m_rows;
};

/// Wine leaves a process behind now and then whose main thread is gone and a thread of whose pool waits for
/// ever. It is counted, ended, and no fault of the host's.
void AwaitEnd(HANDLE process, CProof& proof)
{
    if (::WaitForSingleObject(process, kTimeoutMs) != WAIT_OBJECT_0)
    {
        proof.AddOdd("a process did not end");
        ::TerminateProcess(process, ERROR_TIMEOUT);
    }
}

void SoakManager(unsigned long long cycles, CProof& proof)
{
    CInstallation installation;
    SetCommonFiles();
    installation.AddGroup(L"TxBench", BenchSubsystems(1));
    const std::wstring name = L"TxBench1";
    const Basalt::CServiceHandle service =
        OpenServiceByName(name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    CCurve curve(cycles);
    constexpr unsigned long long kWarmUp = 3;
    for (unsigned long long i = 0; i <= cycles + kWarmUp; ++i)
    {
        if (!::StartServiceW(service.Get(), 0, nullptr))
        {
            ThrowError(L"starting " + name, ::GetLastError());
        }
        AwaitRunning(name);
        const DWORD processId = QueryService(name).dwProcessId;
        const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, processId));
        if (i >= kWarmUp && (i - kWarmUp) % std::max(cycles / kParts, 1ULL) == 0)
        {
            ::Sleep(1500); // What a start leaves for later is held too.
            curve.Add(i - kWarmUp, processId);
        }
        SERVICE_STATUS status{};
        if (!::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) ||
            !WaitForServiceState(name, SERVICE_STOPPED, kTimeoutMs))
        {
            ThrowError(name + L" does not stop");
        }
        AwaitEnd(process.Get(), proof);
        proof.AddPoint();
        proof.Progress("under the manager: " + std::to_string(i));
    }
    curve.Report("under the manager", proof);
}

class CProcessSoak
{
public:
    explicit CProcessSoak(CProof& proof) : m_proof(proof), m_random(proof.Seed())
    {
        SetCommonFiles();
        std::vector<TestSubsystem> group;
        for (int i = 0; i <= kServices; ++i)
        {
            group.push_back({ServiceName(i), kSubsystem, BesideTest(L"RecordedSubsystem.dll")});
        }
        m_host.emplace(m_installation.AddGroup(L"TxSoak", group));
        m_record.behaviour = static_cast<LONG>(Behaviour::Works);
        m_host->StartAndWait(ServiceName(0)); // Keeps the process while all others are stopped.
        reportTogether();
    }

    void Run(unsigned long long cycles)
    {
        constexpr unsigned long long kWarmUp = 200;
        CCurve curve(cycles);
        for (unsigned long long i = 0; i <= cycles + kWarmUp; ++i)
        {
            if (i >= kWarmUp && (i - kWarmUp) % std::max(cycles / kParts, 1ULL) == 0)
            {
                stopAll();
                curve.Add(i - kWarmUp, m_host->ProcessId());
            }
            cycle(1 + static_cast<int>(m_random.Below(kServices)));
            m_proof.AddPoint();
            m_proof.Progress("in one process: " + std::to_string(i));
        }
        stopAll();
        m_host->Stop(ServiceName(0));
        AwaitEnd(m_host->Process(), m_proof);
        curve.Report("in one process", m_proof);
    }

private:
    static constexpr DWORD kSettleMs = 300; ///< For threads of the pool.
    static constexpr int kServices = 8;     ///< Beside the one that keeps the process.
    static constexpr wchar_t kSubsystem[] = L"{5C9E2A61-94B7-4E0F-A2D8-3F6B1C7E8D43}";

    static std::wstring ServiceName(int number) { return L"TxSoak" + std::to_wstring(number); }

    /// Whenever two services report to the manager at the same moment, the RPC runtime opens a further
    /// connection to it and keeps it. That would come at some time; so it comes first.
    void reportTogether()
    {
        for (int i = 1; i <= kServices; ++i)
        {
            ThrowIfFailed(m_host->Start(ServiceName(i)), L"starting " + ServiceName(i));
        }
        for (int i = 1; i <= kServices; ++i)
        {
            if (!m_host->WaitForState(ServiceName(i), SERVICE_RUNNING))
            {
                ThrowError(ServiceName(i) + L" does not run");
            }
            m_isRunning[i] = true;
        }
    }

    /// Starts the service, stopping it first when it runs.
    void cycle(int number)
    {
        stop(number);
        const auto behaviour =
            static_cast<Behaviour>(m_random.Below(static_cast<std::size_t>(Behaviour::Count)));
        m_record.behaviour = static_cast<LONG>(behaviour);
        const std::wstring name = ServiceName(number);
        ThrowIfFailed(m_host->Start(name), L"starting " + name);
        const bool mustRun = behaviour == Behaviour::Works || behaviour == Behaviour::Unloads ||
                             behaviour == Behaviour::ReleaseThrows;
        const DWORD wanted = mustRun ? SERVICE_RUNNING : SERVICE_STOPPED;
        if (!m_host->WaitForState(name, wanted) || (!mustRun && !m_host->WaitForThreadEnd(name)))
        {
            ThrowError(
                name + L" with behaviour " + std::to_wstring(static_cast<LONG>(behaviour)) +
                L" is in state " + std::to_wstring(QueryService(name).dwCurrentState));
        }
        m_isRunning[number] = mustRun;
    }

    void stop(int number)
    {
        if (m_isRunning[number])
        {
            m_host->Stop(ServiceName(number));
            m_isRunning[number] = false;
        }
    }

    void stopAll()
    {
        for (int i = 1; i <= kServices; ++i)
        {
            stop(i);
        }
        ::Sleep(kSettleMs);
    }

    CProof& m_proof;
    CRandom m_random;
    ServiceRecord& m_record = *MapServiceRecord();
    CInstallation m_installation;
    std::optional<CGroupRunner> m_host;
    bool m_isRunning[kServices + 1] = {};
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    constexpr unsigned long long kLong = 100'000;
    const auto options = ProofOptions::Parse(argc, argv, {L"--only"});
    if (!options)
    {
        std::fputs(
            "usage: soak [--length CYCLES] [--seed N] [--json FILE] [--only manager|process]\n", stderr);
        return 2;
    }
    CProof proof("soak", *options, kLong);
    try
    {
        if (options->Get(L"--only") != L"process")
        {
            SoakManager(proof.Length() / kForOneUnderTheManager, proof);
        }
        if (options->Get(L"--only") != L"manager")
        {
            CProcessSoak(proof).Run(proof.Length());
        }
    }
    catch (const std::exception& failure)
    {
        proof.AddFault(failure.what());
    }
    return proof.Finish();
}
