#include "Figures.h"

#include <psapi.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "HandleCount.h"
#include "StartMark.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/Stopwatch.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"
#include "support/Narrow.h"
#include "txsvcctl/service/ProcessFigures.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr wchar_t kSubsystem[] = L"{5C9E2A61-94B7-4E0F-A2D8-3F6B1C7E8D42}";
constexpr DWORD kTimeoutMs = 30000;
const Basalt::CHandle s_running(
    ::CreateEventW(nullptr, FALSE, FALSE, kRunningEvent)); ///< Signalled by services.

void EndAll(std::vector<std::unique_ptr<CGroupRunner>>& hosts, const std::vector<std::wstring>& names)
{
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        hosts[std::min(i, hosts.size() - 1)]->Stop(names[i]);
    }
    hosts.clear();
}

} // namespace

void Figures::Add(DWORD processId)
{
    const Basalt::CHandle process(
        ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    HMODULE modules[256];
    DWORD bytes = 0;
    ::K32EnumProcessModules(process.Get(), modules, sizeof(modules), &bytes);
    dlls += static_cast<int>(bytes / sizeof(HMODULE)) - 1;
    handles += static_cast<double>(CountHandles(processId));
    const TxCtl::ProcessFigures held = TxCtl::FiguresOf(processId).value_or(TxCtl::ProcessFigures{});
    privateKiB += static_cast<double>(held.privateBytes) / 1024;
    threads += held.threads;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

Figures Median(const std::vector<Figures>& all)
{
    Figures median;
    for (const auto& [name, member] : kFigures)
    {
        std::vector<double> values;
        std::ranges::transform(
            all, std::back_inserter(values), [member](const Figures& one) { return one.*member; });
        median.*member = Median(std::move(values));
    }
    return median;
}

double PageFaultsOf(const std::string& program)
{
    double faults = 0;
    WIN32_FIND_DATAW entry{};
    const HANDLE search = ::FindFirstFileW(L"Z:\\proc\\*", &entry);
    for (BOOL isThere = search != INVALID_HANDLE_VALUE; isThere; isThere = ::FindNextFileW(search, &entry))
    {
        const std::string folder = "Z:\\proc\\" + Narrow(entry.cFileName);
        std::string command, stat;
        std::getline(std::ifstream(folder + "\\cmdline"), command, '\0');
        if (command.find(program) != std::string::npos)
        {
            std::getline(std::ifstream(folder + "\\stat"), stat);
            std::istringstream fields(
                stat.substr(stat.rfind(')') + 2)); // From the third on; it is the tenth.
            std::string field;
            for (int i = 3; i <= 10 && fields >> field; ++i)
            {
            }
            faults += std::stod(field);
        }
    }
    ::FindClose(search);
    return faults;
}

std::wstring HostImage(const std::wstring& group)
{
    return L"\"" + BesideTest(L"TxSvHost.exe") + L"\" /" + group;
}

std::wstring BareImage(const std::wstring& options)
{
    return L"\"" + BesideTest(L"BareService.exe") + L"\" " + options;
}

void AwaitRunning(const std::wstring& name)
{
    if (::WaitForSingleObject(s_running.Get(), kTimeoutMs) != WAIT_OBJECT_0)
    {
        ThrowError(name + L" should run but is " + TxCtl::StateName({QueryService(name).dwCurrentState}));
    }
}

void SetCommonFiles()
{
    Basalt::CRegKey key;
    ThrowIfFailed(
        key.Create(HKEY_LOCAL_MACHINE, L"Software\\Wow6432Node\\Tarvex\\KSC", KEY_ALL_ACCESS),
        L"creating the product's key");
    ThrowIfFailed(key.WriteString(L"CommonFiles Dir64", L"C:\\"), L"writing to it");
}

std::vector<TestSubsystem> BenchSubsystems(int count)
{
    std::vector<TestSubsystem> all;
    for (int i = 1; i <= count; ++i)
    {
        all.push_back({L"TxBench" + std::to_wstring(i), kSubsystem, BesideTest(L"BenchSubsystem.dll")});
    }
    return all;
}

Figures MeasureGroup(
    const std::vector<std::wstring>& names,
    const std::vector<std::wstring>& images,
    const std::string& program)
{
    std::vector<std::unique_ptr<CGroupRunner>> hosts;
    const Basalt::CStopwatch watch;
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        if (i < images.size())
        {
            hosts.push_back(std::make_unique<CGroupRunner>(images[i]));
        }
        if (hosts.back()->Start(names[i]) != ERROR_SUCCESS)
        {
            ThrowError(names[i] + L" does not start");
        }
        AwaitRunning(names[i]);
    }
    Figures figures{.milliseconds = watch.Seconds() * 1000};
    ::Sleep(1500);
    for (const auto& host : hosts)
    {
        figures.Add(host->ProcessId());
    }
    figures.pageFaults = PageFaultsOf(program);
    EndAll(hosts, names);
    return figures;
}
