/// @file
/// Groups of 1 to 512 services in one process, loaded one after another and side by side, with modules that
/// take no time and 50 ms; what they hold, beside as many processes of BareService /com up to 200; what the
/// host's road to a service's object takes, beside the bare calls.
///
///     scale [--length LARGEST GROUP] [--json FILE]
///
/// "to creation" is the time from the beginning of a service's thread to that of its CreateObject: the
/// lookups, the load of the module, and the wait for others that load.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <memory>
#include <vector>

#include "Figures.h"
#include "Proof.h"
#include "ServiceRecord.h"
#include "TxSvcSubsystem.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/Stopwatch.h"
#include "base/SystemLibrary.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "proxy/TxSvcHostProxy.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"

namespace
{

constexpr wchar_t kGroup[] = L"TxScale";
constexpr DWORD kTimeoutMs = 300000;
constexpr int kSizes[] = {1, 8, 64, 256, 512};
constexpr double kUnitsPerMs = 10000; ///< Of a FILETIME.
/// Wine's manager talks to 255 processes at most.
constexpr int kMostProcesses = 200;

const std::vector<std::string> kColumns = {
    "services",
    "serial",
    "module ms",
    "total ms",
    "to creation, median",
    "longest",
    "at once",
    "KiB less threads",
    "threads",
    "handles",
    "DLLs"};

std::wstring ServiceName(int number)
{
    return kGroup + std::to_wstring(number);
}

/// A module's class of its own for each.
std::wstring ClsidText(int number)
{
    wchar_t text[64] = {};
    ::_snwprintf(text, std::size(text) - 1, L"{5C9E2A61-94B7-4E0F-A2D8-3F6B%08X}", 0x10000000 + number);
    return text;
}

std::vector<TestSubsystem> Subsystems(int count, const std::wstring& module)
{
    std::vector<TestSubsystem> all;
    for (int i = 1; i <= count; ++i)
    {
        all.push_back({ServiceName(i), ClsidText(i), module});
    }
    return all;
}

void SetSerial(bool isSerial)
{
    Basalt::CRegKey key;
    ThrowIfFailed(key.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_WRITE), L"opening the host's key");
    ThrowIfFailed(key.WriteDword(L"ForceSerialLoads", isSerial ? 1 : 0), L"writing to it");
}

/// Of the creations, how many ran at the same time at most.
int MostAtOnce(const ServiceRecord& record, int count)
{
    int most = 0;
    for (int i = 0; i < count; ++i)
    {
        const LONGLONG moment = record.starts[i].createBegan;
        most = std::max(
            most,
            static_cast<int>(
                std::count_if(record.starts, record.starts + count, [moment](const StartRecord& other) {
                    return other.createBegan <= moment && moment < other.createEnded;
                })));
    }
    return most;
}

struct Run
{
    std::vector<double> row; ///< By kColumns.
    int atOnce = 0;
    Figures held;
};

/// Starts all as quickly as the manager would, without waiting for one before the next.
Run RunGroup(const std::wstring& image, int count, bool isSerial, int moduleMs, ServiceRecord& record)
{
    SetSerial(isSerial);
    record.created = 0;
    record.running = 0;
    record.delayMs = moduleMs;
    const Basalt::CStopwatch watch;
    CGroupRunner host(image);
    for (int i = 1; i <= count; ++i)
    {
        ThrowIfFailed(host.Start(ServiceName(i)), L"starting " + ServiceName(i));
    }
    for (const ULONGLONG end = ::GetTickCount64() + kTimeoutMs; record.running < count;)
    {
        ::GetTickCount64() > end ? ThrowError(L"the group does not run") : ::Sleep(1);
    }
    Run run;
    run.held.milliseconds = watch.Seconds() * 1000;
    ::Sleep(1500);
    // What a start leaves for later takes its time on a busy machine: two looks must agree, of ten at most.
    double before = -1;
    for (int look = 0; look < 10 && run.held.handles != before; ++look)
    {
        ::Sleep(look == 0 ? 0 : 500);
        before = run.held.handles;
        Figures now;
        now.milliseconds = run.held.milliseconds;
        now.Add(host.ProcessId());
        run.held = now;
    }
    for (int i = 1; i <= count; ++i)
    {
        host.Stop(ServiceName(i));
    }
    static_cast<void>(host.WaitForExit());
    std::vector<double> waits;
    std::transform(
        record.starts, record.starts + count, std::back_inserter(waits), [](const StartRecord& start) {
            return static_cast<double>(start.createBegan - start.threadBegan) / kUnitsPerMs;
        });
    run.atOnce = MostAtOnce(record, count);
    run.row = {
        static_cast<double>(count),
        isSerial ? 1.0 : 0.0,
        static_cast<double>(moduleMs),
        run.held.milliseconds,
        Median(waits),
        *std::ranges::max_element(waits),
        static_cast<double>(run.atOnce),
        run.held.privateKiB - run.held.threads * kThreadKiB,
        run.held.threads,
        run.held.handles,
        run.held.dlls};
    return run;
}

/// What the group holds must grow by the same for each further service.
void CheckGrowth(int count, const Figures& one, const Run& run, CProof& proof)
{
    constexpr double kSlack = 8; // Threads of the pool come and go, each with its handles.
    // Services that report at the same moment have the RPC runtime open further connections to the manager, a
    // pipe and an event each, which stay.
    const double connections = run.atOnce;
    const Figures& held = run.held;
    constexpr double kMostKiB = 32;
    const double further = count - 1;
    const auto lessThreads = [](const Figures& figures) {
        return figures.privateKiB - figures.threads * kThreadKiB;
    };
    const auto require = [&](bool holds, const std::string& what) {
        holds ? void() : proof.AddFault(std::to_string(count) + " services: " + what);
    };
    require(held.threads <= one.threads + further + kSlack / 2, "more than a thread for each");
    require(
        held.handles <= one.handles + 2 * (further + connections) + kSlack, "more than two handles for each");
    require(held.dlls == one.dlls, "other DLLs than one service");
    require(lessThreads(held) <= lessThreads(one) + kMostKiB * further + 1024, "more memory than it should");
}

void MeasureGroups(int largest, CProof& proof)
{
    ServiceRecord& record = *MapServiceRecord();
    std::vector<std::vector<double>> rows, processes;
    Figures one;
    for (const int count : kSizes)
    {
        if (count > largest)
        {
            break;
        }
        CInstallation installation;
        SetCommonFiles();
        const std::wstring image =
            installation.AddGroup(kGroup, Subsystems(count, BesideTest(L"RecordedSubsystem.dll")));
        for (const int moduleMs : {0, 50})
        {
            for (const bool isSerial : {true, false})
            {
                const Run run = RunGroup(image, count, isSerial, moduleMs, record);
                rows.push_back(run.row);
                one = count == 1 && moduleMs == 0 ? run.held : one;
                CheckGrowth(count, one, run, proof);
                if (isSerial && run.atOnce != 1)
                {
                    proof.AddFault(
                        std::to_string(count) + " services load side by side though they must not");
                }
                if (!isSerial && moduleMs != 0 && count > 1 && run.atOnce < 2)
                {
                    proof.AddFault(
                        std::to_string(count) + " services load one after another though they need not");
                }
                proof.AddPoint();
                proof.Progress(std::to_string(count) + " services");
            }
        }
        std::vector<std::wstring> names;
        for (int i = 1; i <= count && count <= kMostProcesses; ++i)
        {
            names.push_back(L"TxScaleOwn" + std::to_wstring(i));
            installation.AddService(names.back(), BareImage(L"/com"));
        }
        if (!names.empty())
        {
            const Figures bare =
                MeasureGroup(names, std::vector(names.size(), BareImage(L"/com")), "BareService");
            processes.push_back(
                {static_cast<double>(count),
                 bare.milliseconds,
                 bare.privateKiB - bare.threads * kThreadKiB,
                 bare.threads,
                 bare.handles,
                 bare.dlls});
        }
    }
    proof.AddTable("groups", kColumns, rows);
    proof.AddTable(
        "as many processes",
        {"services", "total ms", "KiB less threads", "threads", "handles", "DLLs"},
        processes);
}

/// LoadLibrary, GetProcAddress, the class object, the object: what nobody can do without.
void LoadBare(const std::wstring& path)
{
    const HMODULE module = ::LoadLibraryW(path.c_str());
    auto* const getClassObject =
        Basalt::FindExport<std::remove_pointer_t<LPFNGETCLASSOBJECT>>(module, "DllGetClassObject");
    ITxSvcClassObject* classObject = nullptr;
    void* object = nullptr;
    if (getClassObject == nullptr ||
        FAILED(getClassObject(CLSID_NULL, IID_ITxSvcClassObject, reinterpret_cast<void**>(&classObject))) ||
        FAILED(classObject->CreateObject(IID_ITxSvcSubsystem, &object)))
    {
        ThrowError(path + L" cannot be loaded");
    }
    static_cast<ITxSvcSubsystem*>(object)->Release();
}

/// In this process: the host's code beside the bare calls, each with a module that was not there before.
void MeasureLoad(int pairs, CProof& proof)
{
    ServiceRecord& record = *MapServiceRecord();
    record.delayMs = 0;
    record.behaviour = static_cast<LONG>(Behaviour::Works);
    CInstallation installation;
    const CTestFolder folder;
    std::vector<TestSubsystem> group;
    std::vector<std::wstring> bare;
    const std::wstring module = BesideTest(L"RecordedSubsystem.dll");
    constexpr auto kReplace = std::filesystem::copy_options::overwrite_existing;
    for (int i = 0; i <= pairs; ++i)
    {
        const std::wstring hosted = folder.File(L"h" + std::to_wstring(i) + L".dll");
        bare.push_back(folder.File(L"b" + std::to_wstring(i) + L".dll"));
        std::filesystem::copy_file(module, hosted, kReplace);
        std::filesystem::copy_file(module, bare.back(), kReplace);
        group.push_back({ServiceName(i), ClsidText(i), hosted});
    }
    installation.AddGroup(kGroup, group);
    CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true); // As a host does.
    if (!CTxSvcHostConfig::GetInstance().Init(kGroup))
    {
        ThrowError(L"the configuration is not read");
    }
    std::vector<double> hostMs, bareMs, ratios;
    for (int i = 0; i <= pairs; ++i)
    {
        const Basalt::CStopwatch bareWatch;
        LoadBare(bare[static_cast<std::size_t>(i)]);
        const double bareTime = bareWatch.Seconds() * 1000;
        CSubsystemHolder holder;
        EventLog::Failure failure;
        const Basalt::CStopwatch hostWatch;
        if (!CTxSvcHostProxy::GetSubsystem(ServiceName(i), holder, failure))
        {
            ThrowError(L"the host cannot load a module");
        }
        const double hostTime = hostWatch.Seconds() * 1000;
        if (i != 0) // The first ones warm up.
        {
            bareMs.push_back(bareTime);
            hostMs.push_back(hostTime);
            ratios.push_back(hostTime / bareTime);
        }
        proof.AddPoint();
    }
    CTxSvcHostConfig::ReleaseInstance();
    proof.SetFigure("load, bare calls, ms", Median(bareMs));
    proof.SetFigure("load, host, ms", Median(hostMs));
    proof.SetFigure("load, host to bare", Median(ratios));
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    constexpr unsigned long long kLong = 512;
    const auto options = ProofOptions::Parse(argc, argv);
    if (!options)
    {
        std::fputs("usage: scale [--length LARGEST GROUP] [--json FILE]\n", stderr);
        return 2;
    }
    CProof proof("scale", *options, kLong);
    try
    {
        MeasureLoad(proof.Length() < kLong ? 20 : 100, proof);
        MeasureGroups(static_cast<int>(proof.Length()), proof);
    }
    catch (const std::exception& failure)
    {
        proof.AddFault(failure.what());
    }
    return proof.Finish();
}
