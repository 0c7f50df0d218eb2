/// @file
/// What working-set reduction costs the host: what start and stop leave behind, how long a stop takes while
/// callbacks run, and what one recorded sample costs when many are kept.
///
///     working_set_bench
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "HandleCount.h"
#include "base/Owned.h"
#include "base/Stopwatch.h"
#include "contract/WorkingSetEvent.h"
#include "support/ImportPatch.h"
#include "workingset/TxSvcHostWorkingSetHandler.h"

namespace
{

constexpr DWORD kLongMs = 600000;
constexpr DWORD kBucketRange = 0x1000;

WorkingSetRecord Settings()
{
    return {1, 0, 100, kLongMs, kLongMs, 0, 30, 0, kBucketRange, 10, kLongMs};
}

SIZE_T PrivateKilobytes()
{
    PROCESS_MEMORY_COUNTERS counters{};
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters));
    return counters.PagefileUsage / 1024;
}

void PrintHoldings(const char* when)
{
    std::printf(
        "  %-24s %8zu handles %8zu KiB %8zu threads\n",
        when,
        CountOwnHandles(),
        PrivateKilobytes(),
        CountOwnThreads());
}

bool MeasureCycles()
{
    constexpr int kWarmUps = 50;
    constexpr int kCycles = 1000;
    std::printf("%d times initialise and de-initialise\n", kCycles);
    CTxSvcHostWorkingSetHandler handler;
    bool passed = true;
    const auto cycle = [&](int count) {
        for (int i = 0; i < count; ++i)
        {
            passed = handler.Initialize(Settings()) && handler.DeInitialize() && passed;
        }
    };
    cycle(kWarmUps); // The thread pool and the logger make what they keep.
    PrintHoldings("before");
    const Basalt::CStopwatch watch;
    cycle(kCycles);
    const double seconds = watch.Seconds();
    PrintHoldings("after");
    std::printf("  %-24s %8.2f ms\n\n", "one cycle", seconds / kCycles * 1e3);
    return passed;
}

/// Released by each run that begins to measure the CPU usage.
HANDLE s_measuring = nullptr;

BOOL WINAPI AnnouncingProcessTimes(HANDLE, FILETIME*, FILETIME*, FILETIME* kernel, FILETIME* user)
{
    *kernel = {};
    *user = {};
    return ::ReleaseSemaphore(s_measuring, 1, nullptr);
}

bool MeasureTearDown()
{
    constexpr int kRounds = 100;
    std::printf("De-initialise while a timer run and an event run measure CPU usage, %d times\n", kRounds);
    const Basalt::CHandle measuring(::CreateSemaphoreW(nullptr, 0, 10, nullptr));
    s_measuring = measuring.Get();
    const CImportPatch times("GetProcessTimes", &AnnouncingProcessTimes);
    WorkingSetRecord record = Settings();
    record.dwTimerIntervalBase = 1;
    CTxSvcHostWorkingSetHandler handler;
    bool passed = times.IsActive();
    std::vector<double> seconds;
    for (int round = 0; round < kRounds && passed; ++round)
    {
        passed = handler.Initialize(record);
        const Basalt::CHandle event(::OpenEventW(
            EVENT_MODIFY_STATE, FALSE, Contract::WorkingSetEventName(::GetCurrentProcessId()).data()));
        ::SetEvent(event.Get());
        for (int run = 0; run < 2; ++run)
        {
            passed = ::WaitForSingleObject(s_measuring, 10000) == WAIT_OBJECT_0 && passed;
        }
        const Basalt::CStopwatch watch;
        passed = handler.DeInitialize() && passed;
        seconds.push_back(watch.Seconds());
    }
    std::sort(seconds.begin(), seconds.end());
    std::printf("  %-24s %8.2f ms\n", "median", seconds[seconds.size() / 2] * 1e3);
    std::printf("  %-24s %8.2f ms\n\n", "worst", seconds.back() * 1e3);
    return passed;
}

ULONGLONG s_samples = 0;
unsigned s_perBucket = 1;

BOOL WINAPI NextSample(HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD)
{
    counters->WorkingSetSize = (1 + s_samples++ / s_perBucket) * kBucketRange;
    return TRUE;
}

DWORD WINAPI NeverSignalled(HANDLE, DWORD)
{
    return WAIT_TIMEOUT;
}

class CNoTimer final : public IWorkingSetTimer
{
public:
    bool scheduleWsTimer() noexcept override { return true; }
};

/// A band above every size: each run is below it and records. No bucket gets ten, so all samples are kept.
bool MeasureSamples(unsigned perBucket)
{
    constexpr int kMeasured = 1000;
    const Basalt::CHandle stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    CNoTimer timer;
    WorkingSetRecord record = Settings();
    record.stOptimalBucketUpperLimit = MAXDWORD;
    CTxWorkingSetCallback callback;
    const CImportPatch memory("K32GetProcessMemoryInfo", &NextSample);
    const CImportPatch wait("WaitForSingleObject", &NeverSignalled);
    bool passed = memory.IsActive() && wait.IsActive() && callback.init(stopEvent.Get(), &timer, record);
    s_samples = 0;
    s_perBucket = perBucket;
    for (const ULONGLONG kept : {1000ULL, 10000ULL, 100000ULL})
    {
        while (s_samples < kept && passed)
        {
            passed = callback.OnCallback(true);
        }
        const Basalt::CStopwatch watch;
        for (int i = 0; i < kMeasured; ++i)
        {
            passed = callback.OnCallback(true) && passed;
        }
        const double one = watch.Seconds() / kMeasured;

        const Basalt::CStopwatch afreshWatch;
        CBucketHistogram afresh;
        for (ULONGLONG sample = 0; sample < s_samples; ++sample)
        {
            afresh.Add(1 + sample / perBucket);
        }
        passed = !afresh.FirstReaching(10) && passed;
        std::printf(
            "  %7llu kept, %u a bucket %12.2f us a sample %12.2f us for a histogram built afresh\n",
            kept,
            perBucket,
            one * 1e6,
            afreshWatch.Seconds() * 1e6);
    }
    return passed && callback.GetOptimalBucketUpperLimit() == MAXDWORD;
}

} // namespace

int wmain()
{
    bool passed = MeasureCycles();
    passed = MeasureTearDown() && passed;
    std::printf("One recorded sample, without the system calls of its run\n");
    passed = MeasureSamples(1) && passed;
    passed = MeasureSamples(9) && passed;
    if (!passed)
    {
        std::fprintf(stderr, "Something failed: the figures above mean nothing.\n");
    }
    return passed ? 0 : 1;
}
