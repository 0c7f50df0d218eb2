/// @file
/// What each step of a host's start costs, measured inside the process:
///
///     startup_steps            the median of 20 processes for each step
///     startup_steps --once     one line of milliseconds, of this process
///
/// A process goes through the steps once, in the order and with the calls of TxSvcHostMain and
/// CTxSvcHost::Start, against the registry as it stands; group "TxBench" need not exist. Step one pays for
/// what is loaded or created on first use, the logger for one.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "control/InstallingUpdate.h"
#include "control/RegistryLink.h"
#include "host/ProcessSecurity.h"
#include "logging/Log.h"
#include "logging/controller/AutoLogController.h"
#include "privileges/NvidiaDriverFix.h"
#include "process/ComApartment.h"

namespace
{

constexpr int kProcesses = 20;
constexpr const char* kSteps[] = {
    "log controller", "update query", "view link", "privileges", "configuration", "COM and its security"};
constexpr std::size_t kStepCount = std::size(kSteps);

/// Milliseconds since the last call.
double Lap()
{
    static Basalt::CStopwatch s_since;
    const double seconds = s_since.Seconds();
    s_since = Basalt::CStopwatch();
    return seconds * 1000;
}

int RunOnce()
{
    Lap();
    const ETWLogging::AutoLogController logController(L"WSS");
    const double controller = Lap();

    ETWLogging::LoggingIdentity identity;
    identity.group = L"PLATFORM";
    identity.host = nullptr;
    ETWLogging::SetLoggingIdentity(identity);
    static_cast<void>(IsInstallingUpdate());
    const double update = Lap();

    if (!IsRegistryLink(Contract::kProductKey))
    {
        CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true);
    }
    const double link = Lap();

    const CNvidiaDriverFix privileges(true);
    const double privilege = Lap();

    static_cast<void>(CTxSvcHostConfig::GetInstance().Init(L"TxBench"));
    const double configuration = Lap();

    CProcessSecurity security;
    const CComApartment com;
    security.Build();
    ::CoInitializeSecurity(
        security.Descriptor(),
        -1,
        nullptr,
        nullptr,
        RPC_C_AUTHN_LEVEL_DEFAULT,
        RPC_C_IMP_LEVEL_IMPERSONATE,
        nullptr,
        EOAC_NONE,
        nullptr);
    std::printf("%.3f %.3f %.3f %.3f %.3f %.3f\n", controller, update, link, privilege, configuration, Lap());
    return 0;
}

/// Runs this program with --once and reads its line.
bool Measure(std::vector<double> (&samples)[kStepCount])
{
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring command = std::wstring(L"\"") + path + L"\" --once";
    FILE* const pipe = ::_wpopen(command.c_str(), L"r");
    if (pipe == nullptr)
    {
        return false;
    }
    double times[kStepCount] = {};
    bool complete = true;
    for (double& time : times)
    {
        complete = complete && std::fscanf(pipe, "%lf", &time) == 1;
    }
    ::_pclose(pipe);
    for (std::size_t i = 0; complete && i < kStepCount; ++i)
    {
        samples[i].push_back(times[i]);
    }
    return complete;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc > 1 && std::wcscmp(argv[1], L"--once") == 0)
    {
        return RunOnce();
    }
    std::vector<double> samples[kStepCount];
    for (int i = 0; i < kProcesses; ++i)
    {
        if (!Measure(samples))
        {
            std::fputs("a process did not say its times\n", stderr);
            return 1;
        }
    }
    std::printf("Median of %d processes, milliseconds\n\n", kProcesses);
    double sum = 0;
    for (std::size_t i = 0; i < kStepCount; ++i)
    {
        std::sort(samples[i].begin(), samples[i].end());
        const double median = samples[i][kProcesses / 2];
        sum += median;
        std::printf("  %-22s %8.3f\n", kSteps[i], median);
    }
    std::printf("  %-22s %8.3f\n", "sum", sum);
    return 0;
}
