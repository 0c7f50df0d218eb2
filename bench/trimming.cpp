/// @file
/// What working-set reduction would do for three kinds of process, and what it would cost: the host's own
/// code with the default settings, over days of a modelled process in its own time.
///
///     trimming [--length DAYS] [--seed N] [--json FILE]
///
/// The model, minute by minute. A process has pages that it uses all the time (hot; their number drifts by
/// about a mebibyte around its mean) and pages that it has used and does not need any more; both stay in
/// memory until somebody takes them out. After a trim the hot ones are back within a minute, each by a page
/// fault without a disk.
/// - steady: 60 MiB hot, and 25 MiB that only its start needed.
/// - bursty: 40 MiB hot, 25 MiB of the start; every two hours on average (exponentially distributed) ten busy
///   minutes that use 50 to 110 MiB more and a third of the processors.
/// - leaking: 40 MiB hot, 25 MiB of the start, and 12 MiB an hour that are never used again.
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "Proof.h"
#include "Random.h"
#include "base/Owned.h"
#include "contract/HostSettings.h"
#include "support/ImportPatch.h"
#include "workingset/TxWorkingSetCallback.h"
#include "workingset/WorkingSetTimer.h"

namespace
{

constexpr double kMiB = 1 << 20;
constexpr double kPageBytes = 4096;
constexpr LONGLONG kUnitsPerMs = 10000; ///< Of a FILETIME.
constexpr double kMsPerMinute = 60000;
constexpr int kMinutesPerHour = 60;
constexpr int kMinutesPerDay = 24 * kMinutesPerHour;

struct Load
{
    const char* name;
    double hotMiB;
    double burstsPerHour;
    double leakMiBPerHour;
};
constexpr Load kLoads[] = {{"steady", 60, 0, 0}, {"bursty", 40, 0.5, 0}, {"leaking", 40, 0, 12}};

/// The modelled process. What the code in question asks of the system is answered from here.
class CModel
{
public:
    CModel(const Load& load, unsigned seed) : m_load(load), m_random(seed) {}

    /// Lets time pass. @return false when the last day is over.
    void Pass(double milliseconds)
    {
        for (m_ms += milliseconds; m_ms >= (m_minute + 1) * kMsPerMinute;)
        {
            passMinute();
        }
    }

    void Trim()
    {
        m_resident = {};
        ++m_trims;
        m_trimmedAt.push_back(m_minute);
    }

    [[nodiscard]] double Resident() const { return m_resident.Sum(); }
    [[nodiscard]] double Untouched() const { return m_untouched.Sum(); } ///< Without any trim.
    [[nodiscard]] double Now() const { return m_ms; }
    [[nodiscard]] bool IsBusy() const { return m_burstLeft > 0; }
    [[nodiscard]] double CpuMs() const { return m_cpuMs; }
    [[nodiscard]] int Trims() const { return m_trims; }
    [[nodiscard]] double Faults() const { return m_faults; }
    [[nodiscard]] const std::vector<int>& TrimmedAt() const { return m_trimmedAt; }
    /// Of each minute: resident with and without reduction, in MiB.
    [[nodiscard]] const std::vector<std::pair<double, double>>& Minutes() const { return m_minutes; }
    void AddCpu(double milliseconds) { m_cpuMs += milliseconds; }

private:
    struct Pages
    {
        double hot = 0, start = 0, burst = 0, leaked = 0;
        [[nodiscard]] double Sum() const { return hot + start + burst + leaked; }
    };

    void passMinute()
    {
        constexpr double kDrift = 0.95;
        constexpr int kBurstMinutes = 10;
        constexpr double kBurstLeastMiB = 50, kBurstMostMiB = 110, kStartMiB = 25;
        m_drift = kDrift * m_drift + std::sqrt(1 - kDrift * kDrift) * m_random.Normal();
        const double hot = (m_load.hotMiB + m_drift) * kMiB;
        if (m_burstLeft == 0 && m_random.Share() < m_load.burstsPerHour / kMinutesPerHour)
        {
            m_burstLeft = kBurstMinutes;
            m_burst = (kBurstLeastMiB + (kBurstMostMiB - kBurstLeastMiB) * m_random.Share()) * kMiB;
        }
        const double before = m_resident.hot + m_resident.burst;
        const bool isBurst = m_burstLeft > 0;
        for (Pages* const pages : {&m_resident, &m_untouched})
        {
            pages->hot = std::max(pages->hot, hot);
            pages->burst = std::max(pages->burst, isBurst ? m_burst : 0.0);
            pages->leaked += m_load.leakMiBPerHour / kMinutesPerHour * kMiB;
            pages->start += m_minute == 0 ? kStartMiB * kMiB : 0.0;
        }
        m_faults += m_trims == 0 ? 0 : (m_resident.hot + m_resident.burst - before) / kPageBytes;
        m_burstLeft -= isBurst ? 1 : 0;
        m_minutes.emplace_back(m_resident.Sum() / kMiB, m_untouched.Sum() / kMiB);
        ++m_minute;
    }

    Load m_load;
    CRandom m_random;
    double m_ms = 0;
    int m_minute = 0;
    double m_drift = 0;
    int m_burstLeft = 0;
    double m_burst = 0;
    double m_cpuMs = 0;
    Pages m_resident, m_untouched;
    int m_trims = 0;
    double m_faults = 0;
    std::vector<int> m_trimmedAt;
    std::vector<std::pair<double, double>> m_minutes;
};

CModel* s_model = nullptr;

void SetTime(FILETIME* time, double milliseconds)
{
    const auto units = static_cast<ULONGLONG>(milliseconds) * kUnitsPerMs;
    *time = {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

BOOL WINAPI ModelledMemory(HANDLE, PROCESS_MEMORY_COUNTERS* counters, DWORD)
{
    counters->WorkingSetSize = static_cast<SIZE_T>(s_model->Resident());
    return TRUE;
}

BOOL WINAPI ModelledTrim(HANDLE, SIZE_T, SIZE_T)
{
    s_model->Trim();
    return TRUE;
}

BOOL WINAPI ModelledTimes(HANDLE, FILETIME* created, FILETIME* ended, FILETIME* kernel, FILETIME* user)
{
    *created = *ended = *kernel = {};
    SetTime(user, s_model->CpuMs());
    return TRUE;
}

void WINAPI ModelledNow(FILETIME* time)
{
    SetTime(time, s_model->Now());
}

/// Nobody stops: every wait takes its time. A zero one is a question.
DWORD WINAPI ModelledWait(HANDLE, DWORD milliseconds)
{
    constexpr double kBusyShare = 0.33, kIdleShare = 0.002;
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    s_model->AddCpu(
        milliseconds * system.dwNumberOfProcessors * (s_model->IsBusy() ? kBusyShare : kIdleShare));
    s_model->Pass(milliseconds);
    return WAIT_TIMEOUT;
}

class CTimer final : public IWorkingSetTimer
{
public:
    bool scheduleWsTimer() noexcept override
    {
        isArmed = true;
        return true;
    }
    bool isArmed = true;
};

WorkingSetRecord Defaults()
{
    WorkingSetRecord record;
    for (const Contract::WorkingSetSetting& setting : Contract::kWorkingSetSettings)
    {
        record.*setting.field = setting.fallback;
    }
    record.dwBucketRange = Contract::kBucketRange.fallback;
    record.dwOptimalOccuranceCount = Contract::kOccurrenceCount.fallback;
    record.dwProcessIdleWaitTime = Contract::kIdleWaitTime.fallback;
    return record;
}

/// What came of one load.
struct Outcome
{
    double knownAfterHours = -1; ///< When the first band was found.
    int runs = 0;
    std::vector<std::vector<double>> bands; ///< minute, upper edge in MiB
};

Outcome RunDays(CModel& model, unsigned days, unsigned seed)
{
    const Basalt::CHandle stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const WorkingSetRecord record = Defaults();
    CTimer timer;
    CTxWorkingSetCallback callback;
    CRandom random(seed);
    Outcome outcome;
    ULONGLONG band = 0;
    static_cast<void>(callback.init(stopEvent.Get(), &timer, record));
    while (timer.isArmed && model.Now() < days * kMinutesPerDay * kMsPerMinute)
    {
        timer.isArmed = false;
        model.Pass(record.dwTimerIntervalBase + record.dwRandomizationRange * random.Share());
        static_cast<void>(callback.OnCallback(true));
        ++outcome.runs;
        if (callback.GetOptimalBucketUpperLimit() != band)
        {
            band = callback.GetOptimalBucketUpperLimit();
            outcome.bands.push_back({model.Now() / kMsPerMinute, static_cast<double>(band) / kMiB});
            outcome.knownAfterHours = outcome.knownAfterHours < 0
                                          ? model.Now() / kMsPerMinute / kMinutesPerHour
                                          : outcome.knownAfterHours;
        }
    }
    return outcome;
}

/// Two days of it, for the picture.
void AddPicture(const Load& load, const CModel& model, const Outcome& outcome, CProof& proof)
{
    constexpr std::size_t kShown = std::size_t{2} * kMinutesPerDay;
    std::vector<std::vector<double>> minutes, trims;
    for (std::size_t i = 0; i < std::min(kShown, model.Minutes().size()); ++i)
    {
        minutes.push_back({static_cast<double>(i), model.Minutes()[i].first, model.Minutes()[i].second});
    }
    for (const int minute : model.TrimmedAt())
    {
        trims.push_back({static_cast<double>(minute)});
    }
    proof.AddTable(std::string(load.name) + ": minutes", {"minute", "with", "without"}, minutes, false);
    proof.AddTable(std::string(load.name) + ": bands", {"minute", "upper edge"}, outcome.bands, false);
    proof.AddTable(std::string(load.name) + ": trims", {"minute"}, trims, false);
}

void Examine(const Load& load, CProof& proof, std::vector<std::vector<double>>& rows)
{
    const auto days = static_cast<unsigned>(proof.Length());
    CModel model(load, proof.Seed());
    s_model = &model;
    const Outcome outcome = RunDays(model, days, proof.Seed() + 1);
    double with = 0, without = 0;
    for (const auto& [resident, untouched] : model.Minutes())
    {
        with += resident / static_cast<double>(model.Minutes().size());
        without += untouched / static_cast<double>(model.Minutes().size());
    }
    const int half = static_cast<int>(days) * kMinutesPerDay / 2;
    const auto late = std::ranges::count_if(model.TrimmedAt(), [half](int minute) { return minute >= half; });
    rows.push_back(
        {static_cast<double>(&load - kLoads),
         static_cast<double>(outcome.runs) / days,
         static_cast<double>(model.Trims()) / days,
         static_cast<double>(late) / days * 2,
         outcome.knownAfterHours,
         without,
         with,
         model.Faults() / days / kMinutesPerHour / 24});
    const auto require = [&](bool holds, const char* what) {
        holds ? void() : proof.AddFault(std::string(load.name) + ": " + what);
    };
    require(outcome.runs > static_cast<int>(days) * 24 * 3, "the timer is not armed again");
    require(outcome.knownAfterHours > 0, "no band is found");
    require(with <= without, "it takes more memory than without");
    require(
        load.burstsPerHour > 0 || load.leakMiBPerHour > 0 || late <= static_cast<LONGLONG>(days),
        "a steady process is trimmed again and again");
    require(
        load.leakMiBPerHour == 0 || days < 2 || model.Resident() < model.Untouched() / 2,
        "what leaks stays in memory");
    AddPicture(load, model, outcome, proof);
    proof.AddPoint(static_cast<unsigned long long>(outcome.runs));
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    constexpr unsigned long long kLong = 365;
    const auto options = ProofOptions::Parse(argc, argv);
    if (!options)
    {
        std::fputs("usage: trimming [--length DAYS] [--seed N] [--json FILE]\n", stderr);
        return 2;
    }
    CProof proof("trimming", *options, kLong);
    const CImportPatch patches[] = {
        {"K32GetProcessMemoryInfo", &ModelledMemory},
        {"SetProcessWorkingSetSize", &ModelledTrim},
        {"GetProcessTimes", &ModelledTimes},
        {"GetSystemTimeAsFileTime", &ModelledNow},
        {"WaitForSingleObject", &ModelledWait}};
    if (!std::ranges::all_of(patches, &CImportPatch::IsActive))
    {
        proof.AddFault("a call of the system cannot be modelled");
        return proof.Finish();
    }
    std::vector<std::vector<double>> rows;
    for (const Load& load : kLoads)
    {
        Examine(load, proof, rows);
    }
    std::printf("0: steady, 1: bursty, 2: leaking\n");
    proof.AddTable(
        "loads",
        {"load",
         "runs a day",
         "trims a day",
         "in the second half",
         "band after, h",
         "MiB without",
         "MiB with",
         "faults an hour"},
        rows);
    return proof.Finish();
}
