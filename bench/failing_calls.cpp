/// @file
/// Every call of the system that the host makes fails once, in a host of its own:
///
///     failing_calls --trace FILE                              the places of all calls, to be resolved
///     failing_calls --places FILE --designed FILE [--length POINTS] [--seed N] [--json FILE]
///                   [--only FILE:LINE] [--scenario NAME] [--verbose]
///
/// bench/failing_calls is the command that does both. A point is a road to a call (FailingCalls.h), which of
/// the calls on it, what the call then says, and whether the later ones from the same place fail as well. For
/// each, the host may not crash, hang or leak; must serve and end as if nothing had been, and name the
/// failure in its log, unless the file of designed consequences (bench/failing_calls.txt) says otherwise.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FailingCalls.h"
#include "FailingFunctions.h"
#include "Proof.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/Keys.h"
#include "contract/WorkingSetEvent.h"
#include "control/RegistryLink.h"
#include "control/UpdateManager.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/Errors.h"
#include "support/GroupControl.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/service/RegistryNames.h"

namespace
{

constexpr DWORD kAnswerMs = 8000; ///< For a host that has something to do.
constexpr DWORD kEndMs = 6000;
constexpr DWORD kPollMs = 2;
constexpr wchar_t kGroup[] = L"TxProve";
constexpr const wchar_t* kServices[] = {L"TxProveFirst", L"TxProveSecond"};

/// The roads through the host's life that are walked.
enum class Scenario
{
    Run,    ///< Two services start, the working set is trimmed, they stop.
    Fails,  ///< The same with a second service that fails.
    First,  ///< As Run at the first start of the product: the registry link is missing.
    Text,   ///< The log is a text file.
    Update, ///< One service, under the real manager, stopped for an update through COM.
    Core,   ///< "/startservices".
};
constexpr std::pair<Scenario, const char*> kScenarios[] = {
    {Scenario::Run, "run"},
    {Scenario::Fails, "fails"},
    {Scenario::First, "first"},
    {Scenario::Text, "text"},
    {Scenario::Update, "update"},
    {Scenario::Core, "core"}};

std::string NameOf(Scenario scenario)
{
    return std::ranges::find(kScenarios, scenario, &std::pair<Scenario, const char*>::first)->second;
}

/// Below HKEY_LOCAL_MACHINE; the first may be a link to the second.
constexpr const wchar_t* kRegistryRoots[] = {Contract::kProductKey, Contract::kProductKey32};

/// Adds a key, its values and what is below it; nothing when it is not there.
void AddKey(const std::wstring& path, std::set<std::wstring>& entries)
{
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return;
    }
    entries.insert(path);
    for (const std::wstring& name : TxCtl::ValueNames(key, path))
    {
        entries.insert(path + L" " + name);
    }
    for (const std::wstring& name : TxCtl::SubKeyNames(key, path))
    {
        AddKey(path + L"\\" + name, entries);
    }
}

/// What of a road the reference run tells.
struct Call
{
    Scenario scenario;
    LONG64 key;
    std::string function;
    std::vector<DWORD> offsets;
    LONG count;
};

struct Point
{
    const Call* call;
    Failure failure;
    LONG occurrence;
    bool isForGood;
};

struct Outcome
{
    LONG failed = 0;
    bool hasCrashed = false;
    DWORD crashCode = 0;
    bool isGone = true;   ///< The process has ended by itself.
    bool hasEnded = true; ///< Its main function returned, or it was told to exit.
    bool isTidy = true;   ///< Its main function returned: nothing may be left.
    DWORD exitCode = 0;
    std::vector<DWORD> states = {}; ///< Of the services after their start, 0 for none.
    std::vector<DWORD> ends = {};   ///< At the end.
    std::map<std::string, int> lines = {};
    LONG handles = 0;
    LONG blocks = 0;
    LONG threads = 0;
    std::set<std::wstring> registry = {}; ///< What the product then has there: keys and names of values.
    std::string trouble = {};             ///< What kept the driver from its work.
};

/// The section, which the host that is started next opens.
class CSection
{
public:
    CSection()
        : m_mapping(::CreateFileMappingW(
              INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(FailingSection), kFailingSection)),
          m_view(static_cast<FailingSection*>(
              ::MapViewOfFile(m_mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(FailingSection))))
    {
        ThrowIfFailed(m_view != nullptr ? ERROR_SUCCESS : ::GetLastError(), L"sharing memory");
    }
    ~CSection() { ::UnmapViewOfFile(m_view); }
    CSection(const CSection&) = delete;
    CSection& operator=(const CSection&) = delete;

    void Arm(const Point* point, bool isQuick) noexcept
    {
        ::ZeroMemory(m_view, sizeof(*m_view));
        m_view->isQuick = isQuick ? 1 : 0;
        if (point != nullptr)
        {
            m_view->key = point->call->key;
            m_view->occurrence = point->occurrence;
            m_view->isForGood = point->isForGood ? 1 : 0;
            m_view->value = point->failure.value;
            m_view->code = point->failure.code;
            m_view->hasCode = point->failure.hasCode ? 1 : 0;
        }
    }
    [[nodiscard]] const FailingSection& operator*() const noexcept { return *m_view; }
    [[nodiscard]] const FailingSection* operator->() const noexcept { return m_view; }

private:
    Basalt::CHandle m_mapping;
    FailingSection* m_view;
};

std::map<std::string, int> LinesOf(const FailingSection& section)
{
    std::map<std::string, int> lines;
    const auto used = static_cast<std::size_t>(std::min(section.logUsed, kMostLog));
    std::istringstream text(Narrow(std::wstring(section.log, used)));
    for (std::string line; std::getline(text, line);)
    {
        // Times, numbers and paths of a run.
        ++lines[std::regex_replace(
            line, std::regex("[0-9]+\\.[0-9]+s|WS=-?[0-9]+|(first|second)=-?[0-9]+"), "#")];
    }
    return lines;
}

DWORD StateAfter(const std::wstring& name, HANDLE process)
{
    const ULONGLONG end = ::GetTickCount64() + kAnswerMs;
    DWORD state = SERVICE_START_PENDING;
    for (bool isLast = false; !isLast && state == SERVICE_START_PENDING;)
    {
        isLast = ::GetTickCount64() >= end || ::WaitForSingleObject(process, kPollMs) == WAIT_OBJECT_0;
        state = QueryService(name).dwCurrentState;
    }
    return state;
}

bool WaitForLine(const CSection& section, const wchar_t* part, DWORD milliseconds)
{
    const ULONGLONG end = ::GetTickCount64() + milliseconds;
    while (std::wcsstr(section->log, part) == nullptr)
    {
        if (::GetTickCount64() >= end)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
    return true;
}

/// Installs what a scenario needs and plays it, once for each point.
class CStage
{
public:
    explicit CStage(Scenario scenario) : m_scenario(scenario)
    {
        const std::wstring host = BesideTest(L"failing_host.exe");
        std::vector<TestSubsystem> subsystems = {
            {kServices[0], TestClsidText(L"WellBehaved"), BesideTest(kTestModule)}};
        if (scenario != Scenario::Update)
        {
            const wchar_t* const second = scenario == Scenario::Fails ? L"EarlyFails" : L"UnloadAfterStop";
            subsystems.push_back({kServices[1], TestClsidText(second), BesideTest(kTestModule)});
        }
        m_commandLine =
            m_installation.AddGroup(scenario == Scenario::Core ? L"TxCoreSvc" : kGroup, subsystems, host);
        if (scenario == Scenario::Core)
        {
            m_commandLine = L"\"" + host + L"\" /startservices";
        }
        // With the smallest numbers that are allowed; the waits are cut short in the host.
        set(L"IsOobeCheckRequired", 1);
        set(L"WSSLoggingEnable", 1);
        set(L"WSSCpuLimit", 10);
        set(L"WSSTimerBase", 300000);
        if (scenario == Scenario::Text)
        {
            m_log = std::make_unique<CHostLog>(m_folder.File(L"log"));
        }
        if (scenario == Scenario::Update)
        {
            m_proxies = std::make_unique<CProxyRegistration>(SignedProxies(L"tarvex"));
            // An update manager that runs and does not answer.
            const std::wstring name = std::wstring(kTxUpdateEventPrefix) + kTxUpdateDefaultInstance;
            m_update.Reset(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
        }
        if (scenario != Scenario::First)
        {
            CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true);
        }
    }

    Outcome Play(CSection& section, const Point* point, bool isTrimmed)
    {
        section.Arm(point, m_scenario != Scenario::Update); // The forced stop gives others their time.
        Outcome outcome;
        try
        {
            if (m_scenario == Scenario::First)
            {
                Basalt::CRegKey link;
                if (link.Open(
                        HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) ==
                    ERROR_SUCCESS)
                {
                    static_cast<void>(DeleteKeyByHandle(link.Get()));
                }
            }
            m_scenario == Scenario::Update ? playUpdate(outcome)
            : m_scenario == Scenario::Core ? playCore(outcome)
                                           : playRun(section, outcome, isTrimmed);
        }
        catch (const std::exception& failure)
        {
            outcome.trouble = failure.what();
        }
        outcome.failed = section->failed;
        outcome.hasCrashed = section->hasCrashed != 0;
        outcome.crashCode = section->crashCode;
        outcome.hasEnded = section->hasEnded != 0;
        outcome.isTidy = section->hasEnded == 1;
        outcome.exitCode = section->exitCode;
        outcome.handles = section->handles;
        outcome.blocks = section->blocks;
        outcome.threads = section->threads;
        for (const wchar_t* const root : kRegistryRoots)
        {
            AddKey(root, outcome.registry);
        }
        outcome.lines = LinesOf(*section);
        return outcome;
    }

private:
    void set(const wchar_t* name, DWORD value)
    {
        Basalt::CRegKey key;
        ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kHostKey, KEY_ALL_ACCESS), kHostKey);
        ThrowIfFailed(key.WriteDword(name, value), name);
    }

    static void stop(CGroupRunner& host, const wchar_t* name, Outcome& outcome)
    {
        if (QueryService(name).dwCurrentState != SERVICE_STOPPED)
        {
            static_cast<void>(host.Request(name, SERVICE_CONTROL_STOP));
        }
        static_cast<void>(WaitForServiceState(name, SERVICE_STOPPED, kAnswerMs, host.Process()));
        outcome.ends.insert(
            outcome.ends.begin(), QueryService(name).dwCurrentState); // The last one comes first.
        static_cast<void>(host.WaitForThreadEnd(name));
    }

    void playRun(const CSection& section, Outcome& outcome, bool isTrimmed) const
    {
        CGroupRunner host(m_commandLine);
        for (const wchar_t* const name : kServices)
        {
            const bool isStarted = host.Start(name) == ERROR_SUCCESS;
            outcome.states.push_back(isStarted ? StateAfter(name, host.Process()) : 0);
        }
        const auto eventName = Contract::WorkingSetEventName(host.ProcessId());
        const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName.data()));
        if (isTrimmed && event)
        {
            static_cast<void>(WaitForLine(section, L"New optimal bucket decided", 1500));
            static_cast<void>(WaitForLine(section, L"within range", 500));
            ::SetEvent(event.Get());
            static_cast<void>(WaitForLine(section, L"Working set event triggered\n", 500));
            ::Sleep(100);
        }
        // The last one that runs is stopped last: the dispatcher returns with it.
        stop(host, kServices[1], outcome);
        stop(host, kServices[0], outcome);
        outcome.isGone = ::WaitForSingleObject(host.Process(), kEndMs) == WAIT_OBJECT_0;
    }

    void playUpdate(Outcome& outcome) const
    {
        ForgetClassObjects();
        const std::wstring name = kServices[0];
        const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_START);
        if (!::StartServiceW(service.Get(), 0, nullptr))
        {
            // Wine's manager says so as well when the service stops at once.
            outcome.states = {QueryService(name).dwCurrentState};
            outcome.ends = outcome.states;
            return;
        }
        const DWORD processId = QueryService(name).dwProcessId;
        const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, processId));
        outcome.states = {StateAfter(name, process.Get())};
        if (outcome.states[0] == SERVICE_RUNNING)
        {
            askForStop();
        }
        outcome.isGone = ::WaitForSingleObject(process.Get(), kAnswerMs) == WAIT_OBJECT_0;
        if (!outcome.isGone)
        {
            ::TerminateProcess(process.Get(), ERROR_TIMEOUT);
        }
        static_cast<void>(WaitForServiceState(name, SERVICE_STOPPED, kAnswerMs));
        // With the process gone it is the manager's business.
        outcome.ends = {outcome.isGone ? DWORD{SERVICE_STOPPED} : QueryService(name).dwCurrentState};
    }

    /// As an updater does: through the service manager when the host cannot be asked.
    static void askForStop()
    {
        try
        {
            DWORD processId = 0;
            static_cast<void>(ConnectToControl().Get()->TxStopSvcSubsystem(0, &processId));
        }
        catch (const std::exception&)
        {
            SERVICE_STATUS status{};
            ::ControlService(
                OpenServiceByName(kServices[0], SERVICE_STOP).Get(), SERVICE_CONTROL_STOP, &status);
        }
    }

    void playCore(Outcome& outcome) const
    {
        CProcess process(m_commandLine);
        outcome.isGone = ::WaitForSingleObject(process.Handle(), kAnswerMs) == WAIT_OBJECT_0;
        if (!outcome.isGone)
        {
            ::TerminateProcess(process.Handle(), ERROR_TIMEOUT);
        }
    }

    Scenario m_scenario;
    CInstallation m_installation;
    CTestFolder m_folder;
    std::unique_ptr<CHostLog> m_log;
    std::unique_ptr<CProxyRegistration> m_proxies;
    Basalt::CHandle m_update;
    std::wstring m_commandLine;
};

/// Where an address is: the innermost of inlined functions first.
struct Place
{
    std::string symbol;
    std::string line; ///< "file:line", the file without its folders.
    bool isProduct;
};

class CPlaces
{
public:
    /// A line: the offset, then for each function its name, its file:line, and the file's folder, by tabs.
    explicit CPlaces(const std::wstring& path)
    {
        std::ifstream file{std::filesystem::path(path)};
        for (std::string line; std::getline(file, line);)
        {
            std::istringstream fields(line);
            std::string offset;
            std::getline(fields, offset, '\t');
            Place place;
            for (std::string product; std::getline(fields, place.symbol, '\t') &&
                                      std::getline(fields, place.line, '\t') &&
                                      std::getline(fields, product, '\t');)
            {
                place.isProduct = product == "product";
                m_places[std::stoul(offset, nullptr, 16)].push_back(place);
            }
        }
    }

    [[nodiscard]] std::vector<Place> Of(const Call& call) const
    {
        std::vector<Place> road;
        for (const DWORD offset : call.offsets)
        {
            const auto found = m_places.find(offset);
            if (found != m_places.end())
            {
                road.insert(road.end(), found->second.begin(), found->second.end());
            }
        }
        return road;
    }

private:
    std::map<DWORD, std::vector<Place>> m_places;
};

/// Innermost first, the runtime's own functions left out.
std::string Describe(const Call& call, const CPlaces& places, std::size_t most = 6)
{
    std::string text = call.function;
    std::size_t count = 0;
    for (const Place& place : places.Of(call))
    {
        if (place.isProduct && count++ < most)
        {
            text += (count == 1 ? " at " : " < ") + place.line;
        }
    }
    return text;
}

/// What the design says of a failure: a line is FUNCTION, SYMBOL, WORDS, and after "#" why. The first line
/// whose function is the call's (or FUNCTION/CODE, or FUNCTION+ for a failure for good) and whose symbol is
/// in a function of its road counts; "*" is any.
class CDesign
{
public:
    struct Rule
    {
        std::string function;
        std::string symbol;
        std::set<std::string> words;
    };

    explicit CDesign(const std::wstring& path)
    {
        std::ifstream file{std::filesystem::path(path)};
        for (std::string line; std::getline(file, line);)
        {
            std::istringstream fields(line.substr(0, line.find('#')));
            Rule rule;
            if (fields >> rule.function >> rule.symbol)
            {
                for (std::string word; fields >> word;)
                {
                    rule.words.insert(word);
                }
                m_rules.push_back(rule);
            }
        }
    }

    [[nodiscard]] std::set<std::string> Of(const Point& point, const std::vector<Place>& road) const
    {
        const Call& call = *point.call;
        const auto code =
            point.failure.hasCode ? point.failure.code : static_cast<DWORD>(point.failure.value);
        for (const Rule& rule : m_rules)
        {
            const bool isFunction = rule.function == "*" || rule.function == call.function ||
                                    rule.function == call.function + "/" + std::to_string(code) ||
                                    (point.isForGood && rule.function == call.function + "+");
            const bool isPlace = rule.symbol == "*" || rule.symbol == NameOf(call.scenario) + ":" ||
                                 std::ranges::any_of(road, [&rule](const Place& place) {
                                     return place.symbol.find(rule.symbol) != std::string::npos;
                                 });
            if (isFunction && isPlace)
            {
                return rule.words;
            }
        }
        return {};
    }

private:
    std::vector<Rule> m_rules;
};

/// Whether the log has a line that the run without a failure does not have and that is about a failure.
bool HasNewLine(const Outcome& outcome, const Outcome& reference)
{
    static const std::regex s_about("^[2-6]|[Ff]ail|[Cc]an.?t|[Uu]nable|0x[0-9A-F]*[1-9A-F]|n/a|-#");
    return std::ranges::any_of(outcome.lines, [&reference](const auto& line) {
        const auto there = reference.lines.find(line.first);
        return (there == reference.lines.end() || there->second < line.second) &&
               std::regex_search(line.first, s_about);
    });
}

constexpr LONG kMoreHandles = 6; ///< Threads of Wine's pool come and go.
constexpr LONG kMoreBlocks = 8;
constexpr LONG kMoreThreads = 2; ///< Of Wine's pool.

/// What the host has not taken back; empty when it has all.
std::string WhatIsLeft(const Outcome& outcome, const Outcome& reference, const std::set<std::string>& words)
{
    if (outcome.isTidy && outcome.handles > reference.handles + kMoreHandles && !words.contains("unclosed"))
    {
        return "handles " + std::to_string(outcome.handles) + " instead of " +
               std::to_string(reference.handles);
    }
    if (outcome.isTidy && outcome.blocks > reference.blocks + kMoreBlocks && !words.contains("keeps"))
    {
        return "memory blocks " + std::to_string(outcome.blocks) + " instead of " +
               std::to_string(reference.blocks);
    }
    if (outcome.isTidy && outcome.threads > reference.threads + kMoreThreads)
    {
        return "threads " + std::to_string(outcome.threads) + " instead of " +
               std::to_string(reference.threads);
    }
    for (const std::wstring& entry : outcome.registry)
    {
        if (!reference.registry.contains(entry))
        {
            return "leaves in the registry " + Narrow(entry);
        }
    }
    return "";
}

/// What is wrong with it; empty when it is as designed.
std::string Judge(
    const Outcome& outcome, const Outcome& reference, const std::set<std::string>& words, CProof& proof)
{
    if (outcome.hasCrashed)
    {
        char text[64];
        std::snprintf(text, sizeof(text), "crashed (0x%08lX)", outcome.crashCode);
        return text;
    }
    if (!outcome.isGone && outcome.hasEnded)
    {
        proof.AddOdd("process that never ends after its end");
        return "";
    }
    if (!outcome.isGone && !words.contains("pending"))
    {
        return "hangs";
    }
    if (!outcome.trouble.empty() && !words.contains("ends"))
    {
        return "trouble: " + outcome.trouble;
    }
    if (outcome.hasEnded && outcome.exitCode != 0 && !words.contains("ends"))
    {
        return "exit code " + std::to_string(outcome.exitCode);
    }
    // With its only service that is stopped the host ends; for the next one the manager would start another.
    const bool isOver = words.contains("stopped") && outcome.hasEnded && !outcome.states.empty() &&
                        outcome.states[0] == SERVICE_STOPPED;
    for (std::size_t i = 0; i < reference.states.size() && !words.contains("ends") && !isOver; ++i)
    {
        const DWORD state = i < outcome.states.size() ? outcome.states[i] : 0;
        const bool mayBe = (state == SERVICE_STOPPED && words.contains("stopped")) ||
                           (state == SERVICE_START_PENDING && words.contains("pending"));
        if (state != reference.states[i] && !mayBe)
        {
            return "service " + std::to_string(i) + " is in state " + std::to_string(state);
        }
        const DWORD end = i < outcome.ends.size() ? outcome.ends[i] : 0;
        if (end != SERVICE_STOPPED && !words.contains("pending"))
        {
            return "service " + std::to_string(i) + " ends in state " + std::to_string(end);
        }
    }
    std::string left = WhatIsLeft(outcome, reference, words);
    if (!left.empty())
    {
        return left;
    }
    if (!words.contains("silent") && !HasNewLine(outcome, reference))
    {
        return "silent";
    }
    return "";
}

std::vector<Call> CallsOf(const FailingSection& section, Scenario scenario)
{
    std::vector<Call> calls;
    for (const Road& road : section.roads)
    {
        if (road.key != 0)
        {
            calls.push_back(
                {scenario,
                 road.key,
                 section.functions[road.function],
                 {road.offsets, road.offsets + road.frames},
                 road.count});
        }
    }
    return calls;
}

/// Whether it is the product that calls, and not the runtime for itself.
bool IsOfProduct(const Call& call, const std::vector<Place>& road)
{
    const bool isMemory =
        call.function == "malloc" || call.function == "calloc" || call.function == "realloc";
    if (isMemory)
    {
        return std::ranges::any_of(road, &Place::isProduct);
    }
    return !road.empty() && road.front().isProduct;
}

class CDriver
{
public:
    explicit CDriver(const ProofOptions& options)
        : m_options(options), m_proof("failing_calls", options, 30), m_places(options.Get(L"--places")),
          m_design(options.Get(L"--designed"))
    {
    }

    /// Writes the offsets that are to be resolved.
    int Trace()
    {
        std::set<DWORD> offsets;
        const std::string only = Narrow(m_options.Get(L"--scenario"));
        for (const auto& [scenario, name] : kScenarios)
        {
            if (!only.empty() && only != name)
            {
                continue;
            }
            CStage stage(scenario);
            play(stage, nullptr, true);
            for (const Call& call : CallsOf(*m_section, scenario))
            {
                offsets.insert(call.offsets.begin(), call.offsets.end());
            }
        }
        std::ofstream file{std::filesystem::path(m_options.Get(L"--trace"))};
        for (const DWORD offset : offsets)
        {
            file << "0x" << std::hex << offset << '\n';
        }
        return offsets.empty() ? 1 : 0;
    }

    int Run()
    {
        // A short run stays where most of the calls are.
        const bool isLong = m_proof.Length() >= 200 || m_options.Has(L"--only");
        for (const auto& [scenario, name] : kScenarios)
        {
            const std::string only = Narrow(m_options.Get(L"--scenario"));
            if (only.empty() ? isLong || scenario == Scenario::Run : only == name)
            {
                collect(scenario);
            }
        }
        choose();
        for (const auto& [scenario, name] : kScenarios)
        {
            playAll(scenario);
        }
        m_proof.SetFigure("roads", static_cast<double>(m_calls.size()));
        m_proof.SetFigure("functions", static_cast<double>(m_functions.size()));
        m_proof.SetFigure("left out", static_cast<double>(m_unknown.size()));
        for (const std::string& name : m_unknown)
        {
            std::printf("  no failure is known for %s\n", name.c_str());
        }
        return m_proof.Finish();
    }

private:
    Outcome play(CStage& stage, const Point* point, bool isTrimmed)
    {
        return stage.Play(m_section, point, isTrimmed);
    }

    void collect(Scenario scenario)
    {
        CStage stage(scenario);
        Outcome& reference = m_references[scenario];
        reference = play(stage, nullptr, true);
        for (const Call& call : CallsOf(*m_section, scenario))
        {
            const std::vector<Place> road = m_places.Of(call);
            if (IsOfProduct(call, road) && m_keys.insert(call.key).second)
            {
                m_calls.push_back(call);
            }
        }
        // What a second run has more of does not come from a failure.
        for (int round = 0; round < 2; ++round)
        {
            const Outcome again = play(stage, nullptr, true);
            reference.handles = std::max(reference.handles, again.handles);
            reference.blocks = std::max(reference.blocks, again.blocks);
            reference.threads = std::max(reference.threads, again.threads);
            reference.registry.insert(again.registry.begin(), again.registry.end());
            for (const auto& [line, count] : again.lines)
            {
                reference.lines[line] = std::max(reference.lines[line], count);
            }
        }
        if (reference.hasCrashed || !reference.isGone || reference.exitCode != 0 ||
            !reference.trouble.empty())
        {
            m_proof.AddFault("without a failure, " + NameOf(scenario) + ": " + reference.trouble);
        }
    }

    /// Where a log call comes from does not matter to what happens in it: such roads are known by their part
    /// up to the log. Empty for others.
    [[nodiscard]] std::string onTheWayToTheLog(const Call& call) const
    {
        std::string prefix = NameOf(call.scenario) + call.function;
        for (const Place& place : m_places.Of(call))
        {
            if (place.symbol == "ETWLogging::LogWrite" || place.symbol == "ETWLogging::LogIsEnabled")
            {
                return prefix;
            }
            prefix += place.line;
        }
        return "";
    }

    void choose()
    {
        const std::string only = Narrow(m_options.Get(L"--only"));
        std::map<std::string, int> logged;
        for (const Call& call : m_calls)
        {
            const std::string prefix = onTheWayToTheLog(call);
            if (!prefix.empty() && ++logged[prefix] > 2)
            {
                continue;
            }
            const std::vector<Failure> failures = FailuresOf(call.function);
            if (failures.empty())
            {
                if (!CannotFail(call.function))
                {
                    m_unknown.insert(call.function);
                }
                continue;
            }
            const std::string description = Describe(call, m_places, 4) + " ";
            if (!only.empty() && description.find(only + " ") == std::string::npos)
            {
                continue;
            }
            m_functions.insert(call.function);
            for (const Failure& failure : failures)
            {
                m_points.push_back({&call, failure, 1, false});
            }
            if (call.count > 1)
            {
                m_points.push_back({&call, failures.front(), call.count, false});
            }
            m_points.push_back({&call, failures.back(), 1, true});
        }
        m_proof.SetFigure("points there are", static_cast<double>(m_points.size()));
        std::mt19937 dice(m_options.seed);
        std::ranges::shuffle(m_points, dice);
        if (only.empty() && m_points.size() > m_proof.Length())
        {
            m_points.resize(m_proof.Length());
        }
    }

    void playAll(Scenario scenario)
    {
        std::unique_ptr<CStage> stage;
        for (const Point& point : m_points)
        {
            if (point.call->scenario == scenario && !m_proof.IsOver())
            {
                stage = stage != nullptr ? std::move(stage) : std::make_unique<CStage>(scenario);
                playPoint(*stage, point);
            }
        }
    }

    void playPoint(CStage& stage, const Point& point)
    {
        const std::vector<Place> road = m_places.Of(*point.call);
        const std::set<std::string> words = m_design.Of(point, road);
        const bool isTrimmed = std::ranges::any_of(road, [](const Place& place) {
            return place.symbol.find("WorkingSet") != std::string::npos ||
                   place.symbol.find("onTimerOrEvent") != std::string::npos;
        });
        const Outcome& reference = m_references[point.call->scenario];
        const CProof::CLimit limit(m_proof, text(point));
        std::string verdict;
        Outcome outcome;
        // What is wrong once by chance is not wrong again.
        for (int tries = 0; tries < 2 && (tries == 0 || (!verdict.empty() && verdict != "silent")); ++tries)
        {
            outcome = play(stage, &point, isTrimmed);
            verdict = outcome.failed == 0 ? "" : Judge(outcome, reference, words, m_proof);
        }
        m_proof.AddPoint();
        m_proof.Progress(std::to_string(++m_done) + " of " + std::to_string(m_points.size()));
        if (outcome.failed == 0)
        {
            m_proof.AddOdd("call that did not come again");
        }
        const std::string description = text(point) + (verdict.empty() ? "" : ": " + verdict);
        if (!verdict.empty())
        {
            m_proof.AddFault(description);
        }
        if (m_options.Has(L"--verbose"))
        {
            std::printf("%s\n", description.c_str());
            for (const auto& [line, count] : outcome.lines)
            {
                const auto there = reference.lines.find(line);
                if (there == reference.lines.end() || there->second < count)
                {
                    std::printf("      + %s\n", line.c_str());
                }
            }
        }
    }

    std::string text(const Point& point) const
    {
        char code[48];
        std::snprintf(
            code,
            sizeof(code),
            " (0x%llX, %lu)",
            static_cast<unsigned long long>(point.failure.value),
            point.failure.code);
        return NameOf(point.call->scenario) + ": " + Describe(*point.call, m_places) + code + " call " +
               std::to_string(point.occurrence) + (point.isForGood ? " and later ones" : "");
    }

    const ProofOptions& m_options;
    CProof m_proof;
    CSection m_section;
    CPlaces m_places;
    CDesign m_design;
    std::map<Scenario, Outcome> m_references;
    std::set<LONG64> m_keys;
    std::vector<Call> m_calls;
    std::vector<Point> m_points;
    std::set<std::string> m_functions;
    std::set<std::string> m_unknown;
    std::size_t m_done = 0;
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const auto options = ProofOptions::Parse(
        argc, argv, {L"--trace", L"--places", L"--designed", L"--only", L"--scenario"}, {L"--verbose"});
    if (!options)
    {
        std::fputs("usage: see the head of failing_calls.cpp\n", stderr);
        return 2;
    }
    try
    {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        CDriver driver(*options);
        return options->Has(L"--trace") ? driver.Trace() : driver.Run();
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "failing_calls: %s\n", failure.what());
        return 1;
    }
}
