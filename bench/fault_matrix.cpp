/// @file
/// A hosted service does everything wrong at every moment of its life, beside a neighbour in the same process
/// that answers calls before and after:
///
///     fault_matrix [--length CELLS] [--seed N] [--json FILE] [--markdown FILE] [--only "PHASE KIND"]
///
/// Each cell of the matrix has a host of its own. What the design says stands in Designed(), with the reason;
/// what was seen must be that. --markdown writes the table into the page's part between its two marks.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "FaultySubsystem.h"
#include "Proof.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

namespace
{

constexpr DWORD kSettleMs = 1200; ///< After that, what has not happened does not.
constexpr DWORD kEndMs = 8000;
constexpr DWORD kPollMs = 5;
constexpr wchar_t kNear[] = L"TxProveNear";
constexpr wchar_t kLater[] = L"TxProveLater";
constexpr wchar_t kFaulty[] = L"TxProveFaulty";

constexpr std::pair<std::string_view, std::string_view> kPhases[] = {
    {"static", "static constructor"},
    {"class", "`DllGetClassObject`"},
    {"create", "`CreateObject`"},
    {"start", "starting"},
    {"run", "running"},
    {"control", "control handler"},
    {"stop", "stopping"},
    {"release", "`Release`"},
    {"unload", "unloading"}};

struct Kind
{
    std::string_view name;
    std::string_view title;
    bool isGcc = false;         ///< The DLL built with g++.
    bool isAboutStates = false; ///< Only where the service reports its states.
};
constexpr Kind kKinds[] = {
    {"violation", "access violation"},
    {"division", "division by zero"},
    {"overflow", "stack overflow"},
    {"throw", "C++ exception, clang's"},
    {"throw", "C++ exception, g++'s", true},
    {"destructor", "exception out of a destructor"},
    {"hang", "hang"},
    {"thread-exit", "`ExitThread`"},
    {"com-count", "two `CoUninitialize` too many"},
    {"stopped-twice", "two STOPPED reports", false, true},
    {"stopped-fails", "STOPPED, then a failure", false, true},
    {"late-report", "reports after its end", false, true}};

/// What becomes of the service and its process.
enum class Fate
{
    Unharmed, ///< As if nothing had been.
    Alone,    ///< The service is stopped; everybody else goes on, and later services start.
    Stays,    ///< The service stays as it is for ever, and so does the process; everybody else goes on.
    Blocks,   ///< The same, and services that start later wait for it.
    Deaf,     ///< No service of the process receives controls any more; they work on.
    Process,  ///< The process ends with all its services.
};
constexpr std::pair<Fate, const char*> kFates[] = {
    {Fate::Unharmed, "unharmed"},
    {Fate::Alone, "alone"},
    {Fate::Stays, "stays"},
    {Fate::Blocks, "blocks"},
    {Fate::Deaf, "deaf"},
    {Fate::Process, "process"}};

const char* NameOf(Fate fate)
{
    return std::ranges::find(kFates, fate, &std::pair<Fate, const char*>::first)->second;
}

struct Cell
{
    const Kind* kind;
    std::string_view phase;

    [[nodiscard]] std::string Name() const
    {
        return std::string(phase) + " " + std::string(kind->name) + (kind->isGcc ? " (g++)" : "");
    }
};

bool Exists(const Kind& kind, std::string_view phase)
{
    return !kind.isAboutStates || phase == "start" || phase == "run" || phase == "stop";
}

/// The host guards the calls that it makes (src/base/CallGuard.h): what is thrown out of them, by whatever
/// machinery, ends the one service. The loader guards static constructors and DllMain in the same way. The
/// control handler is called by the system itself, on the thread that serves all services.
Fate Designed(const Cell& cell)
{
    const std::string_view kind = cell.kind->name;
    const std::string_view phase = cell.phase;
    const bool isLoading = phase == "static" || phase == "class" || phase == "create";
    if (cell.kind->isAboutStates || kind == "com-count")
    {
        // The main thread holds COM for the process, and the manager's word on a service that has stopped is
        // its first.
        return cell.kind->isAboutStates && phase != "stop" ? Fate::Alone : Fate::Unharmed;
    }
    if (kind == "destructor")
    {
        return Fate::Process; // std::terminate.
    }
    if (phase == "control")
    {
        return kind == "hang" || kind == "thread-exit" ? Fate::Deaf : Fate::Process;
    }
    if (kind == "hang" || kind == "thread-exit")
    {
        // Nobody ends a thread that hangs: it may hold anything. While it loads it holds the load lock; one
        // that has ended leaves the lock behind.
        // Unloading happens under the system's loader lock, which every new thread needs.
        return isLoading || phase == "unload" ? Fate::Blocks
               : phase == "release"           ? Fate::Unharmed
                                              : Fate::Stays;
    }
    return phase == "release" || phase == "unload" ? Fate::Unharmed : Fate::Alone;
}

/// Where Wine is not Windows; nothing elsewhere.
/// - Its loader catches what DllMain throws, but not what the C++ runtimes of both compilers make of it while
///   they unwind: it goes on through LoadLibraryW, and the loader's lock is lost. Windows' loader catches it.
/// - Its dispatcher gives controls to a thread of its own and returns when that ends; Windows' is the main
///   thread.
std::optional<Fate> SeenOnWine(const Cell& cell)
{
    if (cell.kind->name == "throw" && (cell.phase == "static" || cell.phase == "unload"))
    {
        return cell.phase == "static" ? Fate::Blocks : Fate::Process;
    }
    if (cell.kind->name == "thread-exit" && cell.phase == "control")
    {
        return Fate::Process;
    }
    return std::nullopt;
}

struct Seen
{
    Fate fate = Fate::Unharmed;
    std::string detail = {};
    bool isOdd = false; ///< All was well, only the process did not go.
};

DWORD StateOf(const wchar_t* name)
{
    return QueryService(name).dwCurrentState;
}

/// One host with a service that goes wrong.
class CCase
{
public:
    CCase(const std::wstring& commandLine, const Cell& cell) : m_host(commandLine), m_cell(cell) {}

    Seen Play()
    {
        m_host.StartAndWait(kNear);
        if (!answers(kNear))
        {
            ThrowError(L"the neighbour does not answer at first");
        }
        const bool isStarted = m_host.Start(kFaulty) == ERROR_SUCCESS;
        const DWORD state = isStarted ? settled(kFaulty, SERVICE_START_PENDING) : 0;
        const bool isRun = state == SERVICE_RUNNING;
        bool isHeard = true;
        if (isRun && m_cell.phase != "run")
        {
            isHeard = control(kFaulty, SERVICE_CONTROL_STOP);
            awaitStopped(kFaulty);
        }
        else if (isRun)
        {
            awaitStopped(kFaulty); // It may be on its way.
            isHeard = m_cell.kind->name != "com-count" || control(kFaulty, SERVICE_CONTROL_STOP);
            awaitStopped(kFaulty);
        }
        ::Sleep(m_cell.kind->name == "late-report" || m_cell.phase == "unload" ? 300 : 30);
        if (m_cell.kind->name == "late-report")
        {
            awaitStopped(kFaulty); // Its last word.
        }
        return judge(isRun, isHeard);
    }

private:
    [[nodiscard]] bool isGone() const { return ::WaitForSingleObject(m_host.Process(), 0) == WAIT_OBJECT_0; }

    [[nodiscard]] bool answers(const std::wstring& name) const
    {
        const Basalt::CHandle ask(::OpenEventW(EVENT_MODIFY_STATE, FALSE, (kAskEvent + name).c_str()));
        const Basalt::CHandle answer(::OpenEventW(SYNCHRONIZE, FALSE, (kAnswerEvent + name).c_str()));
        ::SetEvent(ask.Get());
        const HANDLE events[] = {answer.Get(), m_host.Process()};
        return ask && answer && ::WaitForMultipleObjects(2, events, FALSE, kEndMs) == WAIT_OBJECT_0;
    }

    DWORD settled(const wchar_t* name, DWORD from) const
    {
        const ULONGLONG end = ::GetTickCount64() + kSettleMs;
        while (StateOf(name) == from && ::GetTickCount64() < end && !isGone())
        {
            ::Sleep(kPollMs);
        }
        return StateOf(name);
    }

    void awaitStopped(const wchar_t* name) const
    {
        static_cast<void>(WaitForServiceState(name, SERVICE_STOPPED, kSettleMs, m_host.Process()));
    }

    /// Sends a control, for which the host need not have an answer. @return whether it had.
    bool control(const wchar_t* name, DWORD code)
    {
        const Basalt::CHandle answered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_requests.emplace_back(
            [this, name, code, &answered = *new Basalt::CHandle(duplicate(answered.Get()))] {
                try
                {
                    static_cast<void>(m_host.Request(name, code));
                }
                catch (...) // NOLINT(bugprone-empty-catch): the process was ended meanwhile.
                {
                }
                ::SetEvent(answered.Get());
                delete &answered;
            });
        const bool isAnswered = ::WaitForSingleObject(answered.Get(), kSettleMs) == WAIT_OBJECT_0;
        m_isDeaf = m_isDeaf || !isAnswered;
        return isAnswered;
    }

    static HANDLE duplicate(HANDLE handle)
    {
        HANDLE copy = nullptr;
        ::DuplicateHandle(
            ::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
        return copy;
    }

    Seen judge(bool isRun, bool isHeard)
    {
        if (isGone())
        {
            return {Fate::Process, "", false};
        }
        const bool isStopped = StateOf(kFaulty) == SERVICE_STOPPED;
        if (!answers(kNear))
        {
            return {Fate::Process, isGone() ? "" : "the neighbour no longer answers", false};
        }
        if (!isHeard)
        {
            // A process that breaks down may take its time, with a debugger in it.
            const bool isGoing = ::WaitForSingleObject(m_host.Process(), 3 * kSettleMs) == WAIT_OBJECT_0;
            return {isGoing ? Fate::Process : Fate::Deaf, "", false};
        }
        const bool isLaterStarted = !m_isDeaf && m_host.Start(kLater) == ERROR_SUCCESS &&
                                    settled(kLater, SERVICE_START_PENDING) == SERVICE_RUNNING &&
                                    answers(kLater);
        if (isGone())
        {
            return {Fate::Process, "at the start of another service", false};
        }
        if (!isLaterStarted)
        {
            return {Fate::Blocks, "", false};
        }
        if (!isStopped)
        {
            return end({Fate::Stays, "", false}, false);
        }
        // It has run and was stopped, or it never did.
        const bool isAboutEnd = m_cell.kind->isAboutStates && m_cell.phase == "stop";
        const bool isUnharmed = isAboutEnd || m_cell.kind->name == "com-count";
        const bool isStoppedByItself = !isRun || m_cell.phase == "run" || m_cell.phase == "stop";
        return end({isStoppedByItself && !isUnharmed ? Fate::Alone : Fate::Unharmed, "", false}, true);
    }

    /// Stops the neighbours; without the service that went wrong the host must end with 0.
    Seen end(Seen seen, bool ends)
    {
        for (const wchar_t* const name : {kLater, kNear})
        {
            if (!control(name, SERVICE_CONTROL_STOP) && !isGone())
            {
                return {Fate::Deaf, "afterwards", false};
            }
            if (!WaitForServiceState(name, SERVICE_STOPPED, kEndMs))
            {
                seen.detail = "a neighbour does not stop";
                return seen;
            }
            static_cast<void>(m_host.WaitForThreadEnd(name));
        }
        if (!ends)
        {
            return seen;
        }
        if (::WaitForSingleObject(m_host.Process(), kEndMs) != WAIT_OBJECT_0)
        {
            seen.isOdd = true;
            return seen;
        }
        const DWORD exitCode = m_host.WaitForExit();
        seen.detail = exitCode != 0 ? "exit code " + std::to_string(exitCode) : "";
        return seen;
    }

    /// Ends the host before what waits for it is waited for.
    struct CRequests : std::vector<std::thread>
    {
        ~CRequests() { std::ranges::for_each(*this, &std::thread::join); }
    };
    struct CEnder
    {
        const CGroupRunner& host;
        ~CEnder() { ::TerminateProcess(host.Process(), ERROR_PROCESS_ABORTED); }
    };

    CGroupRunner m_host;
    const Cell& m_cell;
    bool m_isDeaf = false;
    CRequests m_requests;
    CEnder m_ender{m_host};
};

class CMatrix
{
public:
    explicit CMatrix(const ProofOptions& options) : m_options(options), m_proof("fault_matrix", options, 94)
    {
        m_commandLine = m_installation.AddGroup(
            L"TxProve",
            {{kNear, kNeighbourClsid, BesideTest(L"NeighbourSubsystem.dll")},
             {kLater, kNeighbourClsid, L""},
             {kFaulty, kFaultyClsid, BesideTest(L"FaultySubsystem.dll")}});
        m_installation.AddKey(kTestRecordKey);
        Basalt::CRegKey key;
        ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kHostKey, KEY_ALL_ACCESS), kHostKey);
        ThrowIfFailed(key.WriteDword(L"IsOobeCheckRequired", 0), kHostKey);
    }

    int Run()
    {
        std::vector<Cell> cells;
        for (const Kind& kind : kKinds)
        {
            for (const auto& [phase, title] : kPhases)
            {
                if (Exists(kind, phase))
                {
                    cells.push_back({&kind, phase});
                }
            }
        }
        const std::string only = Narrow(m_options.Get(L"--only"));
        std::erase_if(cells, [&only](const Cell& cell) { return !only.empty() && cell.Name() != only; });
        // A shorter run picks from all over the matrix; a longer one goes through it again and again.
        std::mt19937 dice(m_options.seed);
        std::ranges::shuffle(cells, dice);
        // What once was a fault of the host is in every run.
        std::ranges::partition(
            cells, [](const Cell& cell) { return cell.phase == "run" && cell.kind->name == "thread-exit"; });
        cells.resize(std::min<std::size_t>(cells.size(), only.empty() ? m_proof.Length() : 1));
        for (std::size_t i = 0; i < (only.empty() ? m_proof.Length() : cells.size()) && !m_proof.IsOver();
             ++i)
        {
            play(cells[i % cells.size()]);
            m_proof.Progress(std::to_string(i + 1));
        }
        print();
        if (m_options.Has(L"--markdown"))
        {
            writePage(m_options.Get(L"--markdown"));
        }
        return m_proof.Finish();
    }

private:
    void arm(const Cell& cell)
    {
        Basalt::CRegKey key;
        ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kTestRecordKey, KEY_ALL_ACCESS), kTestRecordKey);
        const std::string fault = std::string(cell.phase) + " " + std::string(cell.kind->name);
        ThrowIfFailed(
            key.WriteString(kFaultRecord, std::wstring(fault.begin(), fault.end())), kTestRecordKey);
        m_installation.AddClass(
            kFaultyClsid, BesideTest(cell.kind->isGcc ? L"FaultySubsystemGcc.dll" : L"FaultySubsystem.dll"));
    }

    void play(const Cell& cell)
    {
        arm(cell);
        const CProof::CLimit limit(m_proof, cell.Name());
        Seen seen;
        try
        {
            seen = CCase(m_commandLine, cell).Play();
        }
        catch (const std::exception& failure)
        {
            seen.detail = failure.what();
        }
        m_proof.AddPoint();
        if (seen.isOdd)
        {
            m_proof.AddOdd("process that never ends after its end");
            std::printf("  odd: %s\n", cell.Name().c_str());
        }
        const Fate designed = Designed(cell);
        m_seen[cell.Name()] =
            std::string(NameOf(seen.fate)) + (seen.detail.empty() ? "" : " (" + seen.detail + ")");
        if (seen.fate != designed && seen.fate == SeenOnWine(cell) && seen.detail.empty())
        {
            m_proof.AddOdd("what Wine does otherwise than Windows");
            m_seen[cell.Name()] = std::string(NameOf(designed)) + " (Wine: " + NameOf(seen.fate) + ")";
            return;
        }
        if (seen.fate != designed || !seen.detail.empty())
        {
            m_proof.AddFault(
                cell.Name() + ": " + m_seen[cell.Name()] + " instead of " + NameOf(designed) +
                "; fault_matrix --only \"" + cell.Name() + "\"");
        }
    }

    void print() const
    {
        std::printf("  %-32s", "");
        for (const auto& [phase, title] : kPhases)
        {
            std::printf("%-23s", std::string(phase).c_str());
        }
        std::printf("\n");
        for (const Kind& kind : kKinds)
        {
            std::printf("  %-32s", std::string(kind.title).c_str());
            for (const auto& [phase, title] : kPhases)
            {
                const auto found = m_seen.find(Cell{&kind, phase}.Name());
                const bool exists = Exists(kind, phase);
                std::printf("%-23s", !exists ? "-" : found == m_seen.end() ? "." : found->second.c_str());
            }
            std::printf("\n");
        }
    }

    /// Puts the table between the page's two marks.
    void writePage(const std::wstring& path) const
    {
        std::ifstream in{std::filesystem::path(path), std::ios::binary};
        std::string page{std::istreambuf_iterator<char>(in), {}};
        const std::string begin = "<!-- fault_matrix -->\n", end = "<!-- end of fault_matrix -->";
        const std::size_t from = page.find(begin), to = page.find(end);
        if (from == std::string::npos || to == std::string::npos)
        {
            ThrowError(L"the page has no place for the table: " + path);
        }
        std::ostringstream table;
        table << "| Fault \\ while |";
        for (const auto& [phase, title] : kPhases)
        {
            table << " " << title << " |";
        }
        table << "\n| --- |";
        for (std::size_t i = 0; i < std::size(kPhases); ++i)
        {
            table << " --- |";
        }
        for (const Kind& kind : kKinds)
        {
            table << "\n| " << kind.title << " |";
            for (const auto& [phase, title] : kPhases)
            {
                const auto found = m_seen.find(Cell{&kind, phase}.Name());
                table << " "
                      << (!Exists(kind, phase)    ? "-"
                          : found == m_seen.end() ? "?"
                                                  : found->second)
                      << " |";
            }
        }
        page.replace(from + begin.size(), to - from - begin.size(), table.str() + "\n");
        in.close();
        std::ofstream(std::filesystem::path(path), std::ios::binary) << page;
    }

    const ProofOptions& m_options;
    CProof m_proof;
    CInstallation m_installation;
    std::wstring m_commandLine;
    std::map<std::string, std::string> m_seen;
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const auto options = ProofOptions::Parse(argc, argv, {L"--markdown", L"--only"});
    if (!options)
    {
        std::fputs(
            "usage: fault_matrix [--length CELLS] [--seed N] [--json FILE] [--markdown FILE] [--only CELL]\n",
            stderr);
        return 2;
    }
    try
    {
        return CMatrix(*options).Run();
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "fault_matrix: %s\n", failure.what());
        return 1;
    }
}
