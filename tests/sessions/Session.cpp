#include "Session.h"

#include <windows.h>
#include <shellapi.h>

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <utility>

#include "contract/Keys.h"
#include "contract/LogSettings.h"
#include "contract/WorkingSetEvent.h"
#include "control/RegistryLink.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/Errors.h"
#include "support/Narrow.h"
#include "support/Process.h"
#include "txsvcctl/Tool.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/RegistryNames.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;

template <typename Text>
void ReplaceAll(Text& text, const Text& from, const Text& to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != Text::npos; at += to.size())
    {
        text.replace(at, from.size(), to);
    }
}

std::vector<std::wstring> Split(const std::wstring& line)
{
    int count = 0;
    wchar_t** const words = ::CommandLineToArgvW(line.c_str(), &count);
    std::vector<std::wstring> split(words, words + count);
    ::LocalFree(words);
    return split;
}

/// Without the last line's end.
std::wstring LinesOf(std::string text)
{
    ReplaceAll<std::string>(text, "\r\n", "\n");
    return TxCtl::FromUtf8(text.substr(0, text.find_last_not_of('\n') + 1));
}

/// The console of the tool's commands: what goes to the standard error is marked.
class CTranscript final : public TxCtl::IConsole
{
public:
    explicit CTranscript(std::wstring& text) : m_text(text) {}
    void Out(const std::wstring& text) override { add(L"", text); }
    void Error(const std::wstring& text) override { add(L"! ", text); }

private:
    void add(const wchar_t* mark, std::wstring text)
    {
        ReplaceAll<std::wstring>(text, L"\n", std::wstring(L"\n") + mark);
        m_text += mark + text + L"\n";
    }

    std::wstring& m_text;
};

} // namespace

std::string CSession::Execute(const std::string& line)
{
    struct Command
    {
        std::size_t least; ///< Words behind the command.
        void (CSession::*run)(const Words&);
    };
    static const std::map<std::wstring, Command> s_commands = {
        {L"await", {2, &CSession::await}},    {L"begin", {1, &CSession::begin}},
        {L"end", {0, &CSession::end}},        {L"entry", {1, &CSession::entry}},
        {L"file", {1, &CSession::file}},      {L"group", {1, &CSession::group}},
        {L"host", {1, &CSession::host}},      {L"link", {1, &CSession::link}},
        {L"listen", {0, &CSession::listen}},  {L"log", {0, &CSession::log}},
        {L"class", {2, &CSession::setClass}}, {L"privileges", {0, &CSession::privileges}},
        {L"run", {1, &CSession::run}},        {L"set", {3, &CSession::set}},
        {L"show", {1, &CSession::show}},      {L"start", {1, &CSession::start}},
        {L"state", {1, &CSession::state}},    {L"stop", {1, &CSession::stop}},
        {L"trim", {0, &CSession::trim}},      {L"txsvcctl", {0, &CSession::txsvcctl}}};

    m_out.clear();
    const std::wstring text = expand(TxCtl::FromUtf8(line));
    const Words words = Split(text);
    m_arguments = text.substr(std::min(text.size(), words[0].size() + 1));
    const auto command = s_commands.find(words[0]);
    if (command == s_commands.end() || words.size() <= command->second.least)
    {
        ThrowError(L"no such command, or not enough words: " + words[0]);
    }
    (this->*command->second.run)({words.begin() + 1, words.end()});
    return normalise(Narrow(m_out));
}

void CSession::txsvcctl(const Words& words)
{
    CTranscript transcript(m_out);
    const auto redirection =
        std::ranges::find_if(words, [](const std::wstring& word) { return word == L"<" || word == L">"; });
    const bool hasInput = redirection != words.end() && *redirection == L"<";
    const Basalt::CFile input(
        !hasInput
            ? nullptr
            : ::CreateFileW(redirection[1].c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ::SetStdHandle(STD_INPUT_HANDLE, input.Get());
    const TxCtl::ExitCode result = TxCtl::RunTool({words.begin(), redirection}, transcript);
    if (redirection != words.end() && !hasInput)
    {
        file({redirection[1], std::exchange(m_out, {})});
    }
    if (const auto code = static_cast<int>(result))
    {
        print(L"= " + std::to_wstring(code));
    }
}

void CSession::group(const Words& words)
{
    std::vector<TestSubsystem> subsystems;
    for (auto word = words.begin() + 1; word != words.end(); ++word)
    {
        const std::size_t equals = std::min(word->find(L'='), word->size());
        const std::wstring what = word->substr(std::min(equals + 1, word->size()));
        const bool isTest = std::ranges::find(kTestBehaviours, what) != std::end(kTestBehaviours);
        subsystems.push_back(
            {word->substr(0, equals),
             isTest ? TestClsidText(what) : what,
             isTest ? BesideTest(kTestModule) : L""});
    }
    m_installation.AddGroup(words[0], subsystems);
}

/// Makes the entry of another program's service, or shows what the service manager has of one.
void CSession::entry(const Words& words)
{
    if (words.size() > 1)
    {
        m_installation.AddService(words[0], words[1]);
        ::ChangeServiceConfigW(
            OpenServiceByName(words[0], SERVICE_CHANGE_CONFIG).Get(),
            SERVICE_WIN32_OWN_PROCESS,
            SERVICE_NO_CHANGE,
            SERVICE_NO_CHANGE,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr);
        return;
    }
    const auto entry = TxCtl::CServiceManager(SC_MANAGER_CONNECT).FindConfig(words[0]);
    print(
        entry ? L"type " + std::to_wstring(entry->type) + L", start " + std::to_wstring(entry->startType) +
                    L", " + entry->imagePath + L", " + entry->displayName
              : L"no entry");
}

void CSession::setClass(const Words& words)
{
    m_installation.AddClass(words[0], words[1]);
}

void CSession::set(const Words& words)
{
    const std::wstring name = words[1] == L"@" ? L"" : words[1];
    const std::wstring& value = words[2];
    if (words[0] == kTestRecordKey)
    {
        m_installation.AddKey(words[0]);
    }
    Basalt::CRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, words[0].c_str(), KEY_ALL_ACCESS), words[0]);
    const DWORD status = value.starts_with(L"dword:")
                             ? key.WriteDword(name.c_str(), std::wcstoul(value.c_str() + 6, nullptr, 0))
                         : value.starts_with(L"text:") ? key.WriteString(name.c_str(), value.substr(5))
                                                       : key.DeleteValue(name.c_str());
    ThrowIfFailed(status, words[0] + L" " + name);
}

void CSession::show(const Words& words)
{
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, words[0].c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return print(L"no key");
    }
    std::set<std::wstring> lines;
    for (const std::wstring& name : TxCtl::ValueNames(key, words[0]))
    {
        DWORD number = 0;
        std::wstring text = L"other";
        if (key.ReadDword(name.c_str(), number) == ERROR_SUCCESS)
        {
            text = L"dword:" + std::to_wstring(number);
        }
        else if (key.ReadString(name.c_str(), text) == ERROR_SUCCESS)
        {
            text = L"text:" + text;
        }
        lines.insert((name.empty() ? L"@" : name) + L" " + text);
    }
    for (const std::wstring& name : TxCtl::SubKeyNames(key, words[0]))
    {
        lines.insert(L"[" + name + L"]");
    }
    std::ranges::for_each(lines, [this](const std::wstring& line) { print(line); });
}

/// Makes a link, or shows where one leads.
void CSession::link(const Words& words)
{
    if (words.size() > 1)
    {
        return print(
            CreateRegistryLink(words[0].c_str(), words[1].c_str(), true, true) ? L"linked" : L"not linked");
    }
    Basalt::CRegKey key;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    const bool isLink =
        key.Open(HKEY_LOCAL_MACHINE, words[0].c_str(), KEY_READ, REG_OPTION_OPEN_LINK) == ERROR_SUCCESS &&
        key.ReadValue(L"SymbolicLinkValue", type, data) == ERROR_SUCCESS && type == REG_LINK;
    const auto* const target = reinterpret_cast<const wchar_t*>(data.data());
    print(isLink ? std::wstring(target, data.size() / sizeof(wchar_t)) : L"no link");
}

/// In UTF-8; without lines it is removed.
void CSession::file(const Words& words)
{
    const std::filesystem::path path = words[0];
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::remove(path);
    for (auto line = words.begin() + 1; line != words.end(); ++line)
    {
        std::ofstream(path, std::ios::app) << Narrow(*line) << "\n";
    }
}

/// By itself, outside of the service manager.
void CSession::run(const Words& words)
{
    SkipControlPipe();
    const std::wstring arguments = m_arguments.substr(std::min(m_arguments.size(), words[0].size()));
    const std::wstring program = ETWLogging::IsAbsolutePath(words[0]) ? words[0] : BesideTest(words[0]);
    const ProcessOutput output = RunForOutput(L"\"" + program + L"\"" + arguments);
    CTranscript transcript(m_out);
    output.out.empty() ? void() : transcript.Out(LinesOf(output.out));
    output.error.empty() ? void() : transcript.Error(LinesOf(output.error));
    print(L"exit code " + std::to_wstring(output.exitCode));
}

void CSession::host(const Words& /*words*/)
{
    m_host = std::make_unique<CGroupRunner>(L"\"" + BesideTest(L"TxSvHost.exe") + L"\" " + m_arguments);
}

void CSession::end(const Words& /*words*/)
{
    print(L"exit code " + std::to_wstring(m_host->WaitForExit()));
    m_host.reset();
}

/// Does not wait for the service.
void CSession::begin(const Words& words)
{
    if (const DWORD error = m_host->Start(words[0], {words.begin() + 1, words.end()}))
    {
        print(L"error " + std::to_wstring(error));
    }
}

void CSession::start(const Words& words)
{
    begin(words);
    // One with arguments ends by itself, unless it stays; it may run for a moment.
    if (words.size() > 1 && words[1] == L"exit" && !m_host->WaitForState(words[0], SERVICE_STOPPED))
    {
        print(L"does not stop");
    }
    state(words);
}

void CSession::stop(const Words& words)
{
    m_host->Stop(words[0]);
    state(words);
}

/// Of a service that does not start any more; a stopped one's thread is gone then.
void CSession::state(const Words& words)
{
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (QueryService(words[0]).dwCurrentState == SERVICE_START_PENDING && ::GetTickCount64() < end)
    {
        ::Sleep(1);
    }
    if (m_host != nullptr && QueryService(words[0]).dwCurrentState == SERVICE_STOPPED)
    {
        static_cast<void>(m_host->WaitForThreadEnd(words[0]));
    }
    const SERVICE_STATUS_PROCESS status = QueryService(words[0]);
    print(
        TxCtl::StateName({status.dwCurrentState}) +
        (status.dwWin32ExitCode == 0 ? L"" : L", exit code " + std::to_wstring(status.dwWin32ExitCode)));
}

/// Makes the trigger of the host's working-set reduction in its place, or tells whether it was pulled. With a
/// name, makes that event.
void CSession::listen(const Words& words)
{
    if (!words.empty())
    {
        return m_event.Reset(::CreateEventW(nullptr, TRUE, FALSE, words[0].c_str()));
    }
    if (m_event)
    {
        return print(::WaitForSingleObject(m_event.Get(), 0) == WAIT_OBJECT_0 ? L"signalled" : L"silence");
    }
    const auto name = Contract::WorkingSetEventName(m_host->ProcessId());
    m_event.Reset(::CreateEventW(nullptr, FALSE, FALSE, name.data()));
    print(::GetLastError() == ERROR_ALREADY_EXISTS ? L"the host listens" : L"the host does not listen");
}

void CSession::trim(const Words& /*words*/)
{
    const auto name = Contract::WorkingSetEventName(m_host->ProcessId());
    const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
    print(event && ::SetEvent(event.Get()) ? L"signalled" : L"no event");
}

/// Those that the host has enabled.
void CSession::privileges(const Words& /*words*/)
{
    Basalt::CHandle token;
    BYTE block[4096];
    DWORD size = 0;
    ::OpenProcessToken(m_host->Process(), TOKEN_QUERY, token.Put());
    ::GetTokenInformation(token.Get(), TokenPrivileges, block, sizeof(block), &size);
    const auto& held = *reinterpret_cast<const TOKEN_PRIVILEGES*>(block);
    std::set<std::wstring> enabled;
    for (DWORD i = 0; i < held.PrivilegeCount; ++i)
    {
        LUID_AND_ATTRIBUTES privilege = held.Privileges[i];
        wchar_t name[64] = {};
        size = 64;
        ::LookupPrivilegeNameW(nullptr, &privilege.Luid, name, &size);
        enabled.insert((privilege.Attributes & SE_PRIVILEGE_ENABLED) != 0 ? name : L"");
    }
    std::ranges::for_each(enabled, [this](const std::wstring& name) { print(name); });
}

/// "on" begins it. Else what was logged since it was last shown: "whole", thread after thread in the order of
/// their first messages; lines that match an expression; or without what is normal.
void CSession::log(const Words& /*words*/)
{
    const std::wstring& what = m_arguments;
    if (what == L"on")
    {
        m_log = std::make_unique<CHostLog>(m_folder.File(L"log"));
        return;
    }
    const bool isWhole = what == L"whole";
    const std::wregex pattern(isWhole ? L"" : what.empty() ? L"^(?!Norm)" : what);
    const std::vector<ETWLogging::LogEntry> lines = m_log->Lines();
    std::vector<std::pair<DWORD, std::wstring>> threads;
    for (; m_shownLines < lines.size(); ++m_shownLines)
    {
        const ETWLogging::LogEntry& line = lines[m_shownLines];
        const std::wstring text = LevelName(line).substr(0, 4) + L" " + line.source.value_or(L"") + L" " +
                                  line.function.value_or(L"") + L": " + line.message + L"\n";
        if (std::regex_search(text, pattern))
        {
            const DWORD id = isWhole ? line.thread : 0;
            auto thread = std::ranges::find(threads, id, &std::pair<DWORD, std::wstring>::first);
            thread = thread == threads.end() ? threads.insert(thread, {id, L""}) : thread;
            thread->second += text;
        }
    }
    for (const auto& [id, text] : threads)
    {
        m_out += text;
    }
}

void CSession::await(const Words& words)
{
    const std::wstring message = m_arguments.substr(words[0].size() + 1);
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (m_log->Count(words[0], message) == 0 && ::GetTickCount64() < end)
    {
        ::Sleep(10);
    }
    print(m_log->Count(words[0], message) != 0 ? L"logged" : L"not logged");
}

std::wstring CSession::expand(std::wstring text) const
{
    ReplaceAll<std::wstring>(text, L"{bin}", BesideTest(L""));
    ReplaceAll<std::wstring>(text, L"{tmp}", m_folder.Path());
    ReplaceAll<std::wstring>(text, L"{host}", kHostKey);
    ReplaceAll<std::wstring>(text, L"{record}", kTestRecordKey);
    for (const std::wstring_view behaviour : kTestBehaviours)
    {
        ReplaceAll<std::wstring>(text, L"{" + std::wstring(behaviour) + L"}", TestClsidText(behaviour));
    }
    return text;
}

std::string CSession::normalise(std::string text) const
{
    for (const auto& [path, name] : {std::pair{BesideTest(L""), "{bin}"}, {m_folder.Path(), "{tmp}"}})
    {
        std::string inJson = Narrow(path);
        ReplaceAll<std::string>(text, inJson, name);
        ReplaceAll<std::string>(inJson, "\\", "\\\\");
        ReplaceAll<std::string>(text, inJson, name);
    }
    for (const std::wstring_view behaviour : kTestBehaviours)
    {
        ReplaceAll<std::string>(
            text, Narrow(TestClsidText(behaviour)), "{" + Narrow(std::wstring(behaviour)) + "}");
    }
    text = std::regex_replace(text, std::regex("\\d+\\.\\d+s"), "#s");
    text = std::regex_replace(text, std::regex("(error \\d+): [^.\n]+\\."), "$1: #."); // The system's text.
    text =
        std::regex_replace(text, std::regex("SCM interface .GLE=0x.{8}"), "SCM interface (#"); // Any call's.
    text = std::regex_replace(text, std::regex("Stop-\\d+"), "Stop-#");
    text = std::regex_replace(text, std::regex("dll.0x[0-9A-F]+"), "dll+#"); // A place in a module.
    // Wine 10 keeps it, Wine 8 does not.
    text = std::regex_replace(
        text,
        std::regex(
            "! note: .* keep delayed starts\n|DelayedAutoStart.*\n|.*delayedStart\"?: (null|false),?\n"),
        "");
    const std::regex figures(
        "(: )[\\d.]+( MiB p.*, )[\\d.]+( MiB w.*, )\\d+( t.*, )\\d+( h.* CPU )[\\d.]+( s, up ).*");
    text = std::regex_replace(text, figures, "$1#$2#$3#$4#$5#$6#");
    // A table is as wide as its longest path, which stands for one of any length.
    text = std::regex_replace(text, std::regex(" +(  \\((registry|default|log\\.ini)[;)])"), "$1");
    // Wine's manager misses the answer of a process that ends at once.
    text = std::regex_replace(text, std::regex("error 1053: .* It is stopped (?=with)"), "it ended at once ");
    return std::regex_replace(text, std::regex("(process |processId\": )[1-9]\\d*"), "$1#");
}
