/// @file
/// Random orders to groups of one to sixteen services in one process each, by the stand-in for the service
/// manager, beside a model that says which states are legal after each:
///
///     controls_model [--length STEPS] [--seed N] [--json FILE]
///
/// A sequence that breaks the model is played again with steps left out, as long as it breaks it still; the
/// shortest one is printed. Services are of several kinds, some of which fail at their start; settings change
/// between the processes, trims are asked for, and now and then the group is stopped for an update through
/// COM.
#include <windows.h>
#include <objbase.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Proof.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/WorkingSetEvent.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/Errors.h"
#include "support/GroupControl.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr int kMostServices = 16;
constexpr int kEpisodeSteps = 80;
constexpr DWORD kAnswerMs = 20000;
constexpr wchar_t kGroup[] = L"TxModel";

enum class Order
{
    Start,       ///< A service that is stopped.
    StartAndEnd, ///< The same, which ends by itself at once with an error.
    Stop,
    Shutdown,
    Restart,     ///< Stop, and a start as soon as it has reported its end.
    Interrogate, ///< Whatever its state.
    Unknown,     ///< A control that nobody knows.
    Trim,
    Settings,   ///< Of the processes that start from now on.
    UpdateStop, ///< Of the whole group, through COM.
};
struct OrderKind
{
    const char* name;
    Order order;
    int weight;
};
constexpr OrderKind kOrders[] = {
    {"start", Order::Start, 300},
    {"start-and-end", Order::StartAndEnd, 60},
    {"stop", Order::Stop, 190},
    {"shutdown", Order::Shutdown, 40},
    {"restart", Order::Restart, 60},
    {"interrogate", Order::Interrogate, 200},
    {"unknown", Order::Unknown, 60},
    {"trim", Order::Trim, 60},
    {"settings", Order::Settings, 30},
    {"update-stop", Order::UpdateStop, 1}};

struct Step
{
    Order order;
    int service;
    DWORD argument;

    [[nodiscard]] std::string Text() const
    {
        const auto* const kind = std::ranges::find(kOrders, order, &OrderKind::order);
        return std::string(kind->name) + " " + std::to_string(service) +
               (argument != 0 ? " " + std::to_string(argument) : "");
    }
};

/// What a service does, and with which code it stops when its start fails.
struct Behaviour
{
    const wchar_t* name;
    bool runs;
    DWORD exitCode;
};
constexpr Behaviour kBehaviours[] = {
    {L"WellBehaved", true, 0},
    {L"WellBehaved", true, 0},
    {L"WellBehaved", true, 0},
    {L"UnloadAfterStop", true, 0},
    {L"StartFails", false, ERROR_NOT_READY},
    {L"CreateThrows", false, 0},
    {L"EarlyFails", false, 0},
    {L"ReleaseThrows", true, 0}};

struct Episode
{
    std::vector<const Behaviour*> services;
    std::vector<Step> steps;
};

/// A sequence that broke the model.
struct Breach : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

std::wstring NameOf(int service)
{
    return L"TxModel" + std::to_wstring(service + 1);
}

std::vector<DWORD> ThreadsOf(DWORD processId)
{
    std::vector<DWORD> found;
    const Basalt::CFile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more;
         more = ::Thread32Next(snapshot.Get(), &entry))
    {
        if (entry.th32OwnerProcessID == processId)
        {
            found.push_back(entry.th32ThreadID);
        }
    }
    return found;
}

/// Plays an episode against the model.
class CPlay
{
public:
    CPlay(const Episode& episode, const std::wstring& commandLine, CProof& proof)
        : m_episode(episode), m_commandLine(commandLine), m_proof(proof), m_codes(episode.services.size())
    {
        install();
    }

    /// @return the number of steps that were legal. @throws Breach
    std::size_t Run()
    {
        std::size_t count = 0;
        for (const Step& step : m_episode.steps)
        {
            count += play(step) ? 1 : 0;
            compare(step);
        }
        for (int i = 0; i < count_(); ++i)
        {
            const Step stop{Order::Stop, i, 0};
            play(stop);
            compare(stop);
        }
        return count;
    }

private:
    [[nodiscard]] int count_() const { return static_cast<int>(m_episode.services.size()); }
    [[nodiscard]] bool isAnyRunning() const
    {
        return std::ranges::find(m_running, true) != std::end(m_running);
    }

    void install() const
    {
        Basalt::CRegKey key;
        const std::wstring path = std::wstring(kHostKey) + L"\\" + kGroup;
        ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS), path);
        std::wstring list;
        for (int i = 0; i < count_(); ++i)
        {
            list += NameOf(i) + L";";
            const std::wstring clsid = TestClsidText(m_episode.services[static_cast<std::size_t>(i)]->name);
            ThrowIfFailed(key.WriteString(NameOf(i).c_str(), clsid), path);
        }
        ThrowIfFailed(key.WriteString(L"", list), path);
        writeSettings(1);
    }

    void writeSettings(DWORD bits) const
    {
        Basalt::CRegKey key;
        ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kHostKey, KEY_ALL_ACCESS), kHostKey);
        ThrowIfFailed(key.WriteDword(L"WSSEnable", bits & 1), kHostKey);
        ThrowIfFailed(key.WriteDword(L"ForceSerialLoads", (bits >> 1) & 1), kHostKey);
        ThrowIfFailed(key.WriteDword(L"IsOobeCheckRequired", (bits >> 2) & 1), kHostKey);
    }

    [[nodiscard]] const Behaviour& behaviour(int service) const
    {
        return *m_episode.services[static_cast<std::size_t>(service)];
    }

    /// @return whether the step was legal.
    bool play(const Step& step)
    {
        const bool runs = m_running[step.service];
        switch (step.order)
        {
        case Order::Start:
            return !runs && (start(step.service, {}), true);
        case Order::StartAndEnd:
            return !runs && behaviour(step.service).runs &&
                   (start(step.service, {L"exit", std::to_wstring(step.argument)}), true);
        case Order::Stop:
            return runs && (end(step.service, SERVICE_CONTROL_STOP), true);
        case Order::Shutdown:
            return runs && (end(step.service, SERVICE_CONTROL_SHUTDOWN), true);
        case Order::Restart:
            // Alone, its end would be that of the process.
            return runs && std::ranges::count(m_running, true) > 1 && (restart(step.service), true);
        case Order::Interrogate:
            return m_host != nullptr && (ask(step.service, SERVICE_CONTROL_INTERROGATE, NO_ERROR), true);
        case Order::Unknown:
            return m_host != nullptr && (ask(step.service, 200, ERROR_CALL_NOT_IMPLEMENTED), true);
        case Order::Trim:
            return m_host != nullptr && (trim(), true);
        case Order::Settings:
            m_settings = step.argument;
            writeSettings(m_settings);
            return true;
        case Order::UpdateStop:
            return m_host != nullptr && (stopForUpdate(), true);
        }
        return false;
    }

    void require(bool holds, const std::string& what) const
    {
        if (!holds)
        {
            throw Breach(what);
        }
    }

    void start(int service, const std::vector<std::wstring>& arguments)
    {
        if (m_host == nullptr)
        {
            m_host = std::make_unique<CGroupRunner>(m_commandLine);
            m_mainThread = ThreadsOf(m_host->ProcessId()).front();
            m_isTrimmed = (m_settings & 1) != 0;
        }
        // Right after its end: Wine's dispatcher, unlike that of Windows, wants the thread gone first.
        DWORD answer = m_host->Start(NameOf(service), arguments);
        for (DWORD waited = 0; answer == ERROR_SERVICE_ALREADY_RUNNING && waited < kAnswerMs; ++waited)
        {
            ::Sleep(1);
            answer = m_host->Start(NameOf(service), arguments);
        }
        require(answer == ERROR_SUCCESS, "the start is refused with " + std::to_string(answer));
        const bool runs = behaviour(service).runs && arguments.empty();
        const DWORD wanted = runs ? SERVICE_RUNNING : SERVICE_STOPPED;
        require(
            m_host->WaitForState(NameOf(service), wanted, kAnswerMs),
            "the service is in state " + std::to_string(QueryService(NameOf(service)).dwCurrentState));
        m_known[service] = true;
        m_running[service] = runs;
        if (!runs)
        {
            const DWORD code = arguments.empty() ? behaviour(service).exitCode : std::stoul(arguments[1]);
            m_codes[static_cast<std::size_t>(service)] = code;
            afterEnd(service);
        }
    }

    void end(int service, DWORD control)
    {
        const DWORD answer = m_host->Request(NameOf(service), control);
        m_running[service] = false;
        m_codes[static_cast<std::size_t>(service)] = 0;
        // The last service's end may end the process before its answer is out.
        require(
            answer == NO_ERROR || (answer == ERROR_PROCESS_ABORTED && !isAnyRunning()),
            "the control is answered with " + std::to_string(answer));
        require(
            m_host->WaitForState(NameOf(service), SERVICE_STOPPED, kAnswerMs),
            "the service is in state " + std::to_string(QueryService(NameOf(service)).dwCurrentState));
        afterEnd(service);
    }

    void restart(int service)
    {
        require(m_host->Request(NameOf(service), SERVICE_CONTROL_STOP) == NO_ERROR, "the stop is refused");
        require(
            m_host->WaitForState(NameOf(service), SERVICE_STOPPED, kAnswerMs), "the service does not stop");
        m_running[service] = false;
        start(service, {});
    }

    /// The process ends with its last service, and not before.
    void afterEnd(int service)
    {
        if (isAnyRunning())
        {
            require(m_host->WaitForThreadEnd(NameOf(service)), "the service's thread goes on");
            return;
        }
        if (::WaitForSingleObject(m_host->Process(), kAnswerMs) != WAIT_OBJECT_0)
        {
            const std::vector<DWORD> threads = ThreadsOf(m_host->ProcessId());
            require(
                std::ranges::find(threads, m_mainThread) == threads.end(),
                "the process goes on without services");
            m_proof.AddOdd("process that never ends after its end");
        }
        else
        {
            const DWORD exitCode = m_host->WaitForExit();
            require(exitCode == 0, "the process ends with " + std::to_string(exitCode));
        }
        m_host.reset();
    }

    void ask(int service, DWORD control, DWORD wanted)
    {
        const DWORD answer = m_host->Request(NameOf(service), control);
        // What the dispatcher says of one that does not run is the system's business.
        require(
            !m_running[service] || answer == wanted,
            "the control is answered with " + std::to_string(answer));
    }

    void trim()
    {
        const auto name = Contract::WorkingSetEventName(m_host->ProcessId());
        const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
        require(
            static_cast<bool>(event) == m_isTrimmed,
            "the trigger of trimming is there, or not, against the setting");
        ::SetEvent(event.Get());
    }

    void stopForUpdate()
    {
        DWORD processId = 0;
        const HRESULT result = ConnectToControl().Get()->TxStopSvcSubsystem(0, &processId);
        require(
            FAILED(result) && processId == m_host->ProcessId(),
            "the stop for an update is not answered as designed");
        require(m_host->WaitForExit() == 0, "the process ends with another code than 0");
        m_host.reset(); // Tells the manager of the services' end.
        for (int i = 0; i < count_(); ++i)
        {
            m_codes[static_cast<std::size_t>(i)] = m_running[i] ? 0 : m_codes[static_cast<std::size_t>(i)];
            m_running[i] = false;
        }
        ForgetClassObjects();
    }

    void compare(const Step& step) const
    {
        // All in one answer: to ask for each takes longer than most orders.
        const std::map<std::wstring, SERVICE_STATUS_PROCESS> states = m_manager.States();
        for (int i = 0; i < count_(); ++i)
        {
            const SERVICE_STATUS_PROCESS& status = states.at(NameOf(i));
            const DWORD wanted = m_running[i] ? SERVICE_RUNNING : SERVICE_STOPPED;
            require(
                status.dwCurrentState == wanted,
                "after " + step.Text() + " service " + std::to_string(i) + " is in state " +
                    std::to_string(status.dwCurrentState));
            require(
                m_running[i] || !m_known[i] || status.dwWin32ExitCode == m_codes[static_cast<std::size_t>(i)],
                "after " + step.Text() + " service " + std::to_string(i) + " has the exit code " +
                    std::to_string(status.dwWin32ExitCode));
        }
        require(
            m_host == nullptr || ::WaitForSingleObject(m_host->Process(), 0) != WAIT_OBJECT_0,
            "after " + step.Text() + " the process has ended");
    }

    const Episode& m_episode;
    const std::wstring& m_commandLine;
    CProof& m_proof;
    const TxCtl::CServiceManager m_manager{SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE};
    std::unique_ptr<CGroupRunner> m_host;
    DWORD m_mainThread = 0;
    DWORD m_settings = 1;
    bool m_isTrimmed = true;
    bool m_running[kMostServices] = {};
    bool m_known[kMostServices] = {};
    std::vector<DWORD> m_codes;
};

class CModel
{
public:
    explicit CModel(const ProofOptions& options)
        : m_proof("controls_model", options, 300), m_dice(options.seed), m_proxies(SignedProxies(L"tarvex"))
    {
        std::vector<TestSubsystem> services;
        services.reserve(kMostServices);
        for (int i = 0; i < kMostServices; ++i)
        {
            services.push_back({NameOf(i), TestClsidText(L"WellBehaved"), BesideTest(kTestModule)});
        }
        m_commandLine = m_installation.AddGroup(kGroup, services);
        ForgetClassObjects();
        for (const Behaviour& behaviour : kBehaviours)
        {
            m_installation.AddClass(TestClsidText(behaviour.name), BesideTest(kTestModule));
        }
    }

    int Run()
    {
        unsigned long long done = 0;
        while (done < m_proof.Length() && !m_proof.IsOver())
        {
            const auto most = std::min<unsigned long long>(kEpisodeSteps, m_proof.Length() - done);
            const Episode episode = throwDice(static_cast<std::size_t>(most));
            const CProof::CLimit limit(m_proof, text(episode));
            if (const auto breach = breaks(episode))
            {
                report(episode, *breach);
                ++m_broken;
            }
            done += most;
            for (unsigned long long i = 0; i < most; ++i)
            {
                m_proof.AddPoint();
            }
            m_proof.Progress(std::to_string(done) + " steps");
            if (m_broken == kMostBreaches)
            {
                break;
            }
        }
        m_proof.SetFigure("episodes", m_episodes);
        m_proof.SetFigure("legal steps", static_cast<double>(m_legal));
        return m_proof.Finish();
    }

private:
    static constexpr int kMostBreaches = 5;

    Episode throwDice(std::size_t steps)
    {
        Episode episode;
        const auto pick = [this](std::size_t count) {
            return std::uniform_int_distribution<std::size_t>(0, count - 1)(m_dice);
        };
        const std::size_t services = pick(kMostServices) + 1;
        for (std::size_t i = 0; i < services; ++i)
        {
            episode.services.push_back(&kBehaviours[i == 0 ? 0 : pick(std::size(kBehaviours))]);
        }
        std::vector<int> weights;
        std::ranges::transform(kOrders, std::back_inserter(weights), &OrderKind::weight);
        std::discrete_distribution<std::size_t> orders(weights.begin(), weights.end());
        for (std::size_t i = 0; i < steps; ++i)
        {
            const Order order = kOrders[orders(m_dice)].order;
            const DWORD argument =
                order == Order::StartAndEnd || order == Order::Settings ? static_cast<DWORD>(pick(8)) : 0;
            episode.steps.push_back({order, static_cast<int>(pick(services)), argument});
        }
        ++m_episodes;
        return episode;
    }

    std::optional<std::string> breaks(const Episode& episode)
    {
        try
        {
            m_legal += CPlay(episode, m_commandLine, m_proof).Run();
            return std::nullopt;
        }
        catch (const std::exception& failure)
        {
            ForgetClassObjects(); // The host was ended by force.
            return failure.what();
        }
    }

    /// Leaves out ever smaller pieces as long as the rest breaks the model still.
    void report(Episode episode, std::string breach)
    {
        std::printf("  broken: %s; looking for the shortest sequence\n", breach.c_str());
        const std::optional<std::string> again = breaks(episode);
        for (std::size_t piece = episode.steps.size() / 2; again && piece > 0; piece /= 2)
        {
            for (std::size_t at = 0; at + piece <= episode.steps.size();)
            {
                Episode shorter = episode;
                const auto from = shorter.steps.begin() + static_cast<std::ptrdiff_t>(at);
                shorter.steps.erase(from, from + static_cast<std::ptrdiff_t>(piece));
                const std::optional<std::string> still = breaks(shorter);
                at += still ? 0 : piece;
                breach = still.value_or(breach);
                episode = still ? shorter : episode;
            }
        }
        m_proof.AddFault(breach + (again ? "" : " (not again)") + ": " + text(episode));
    }

    static std::string text(const Episode& episode)
    {
        std::string all = std::to_string(episode.services.size()) + " services (";
        for (const Behaviour* const behaviour : episode.services)
        {
            all += (behaviour == episode.services.front() ? "" : ",") + Narrow(std::wstring(behaviour->name));
        }
        all += ")";
        for (const Step& step : episode.steps)
        {
            all += "; " + step.Text();
        }
        return all;
    }

    CProof m_proof;
    std::mt19937 m_dice;
    CInstallation m_installation;
    CProxyRegistration m_proxies;
    std::wstring m_commandLine;
    int m_episodes = 0;
    int m_broken = 0;
    std::size_t m_legal = 0;
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const auto options = ProofOptions::Parse(argc, argv);
    if (!options)
    {
        std::fputs("usage: controls_model [--length STEPS] [--seed N] [--json FILE]\n", stderr);
        return 2;
    }
    try
    {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        return CModel(*options).Run();
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "controls_model: %s\n", failure.what());
        return 1;
    }
}
