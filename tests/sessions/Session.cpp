#include "Session.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <regex>
#include <utility>

#include "contract/Keys.h"
#include "contract/WorkingSetEvent.h"
#include "control/RegistryLink.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/Errors.h"
#include "support/Narrow.h"
#include "support/Process.h"
#include "support/TestKey.h"
#include "txsvcctl/RegistryNames.h"
#include "txsvcctl/ServiceManager.h"
#include "txsvcctl/Tool.h"
#include "txsvcctl/common/Utf8.h"

namespace
{

constexpr DWORD kTimeoutMs = 30000;
constexpr wchar_t kClasses[] = L"Software\\Classes\\CLSID\\";

constexpr std::pair<const wchar_t*, TestBehaviour> kBehaviours[] = {
    {L"WellBehaved", TestBehaviour::WellBehaved},
    {L"UnloadAfterStop", TestBehaviour::UnloadAfterStop},
    {L"StartFails", TestBehaviour::StartFails},
    {L"ThrowEarly", TestBehaviour::ThrowEarly},
    {L"ThrowRunning", TestBehaviour::ThrowRunning},
    {L"CrashEarly", TestBehaviour::CrashEarly},
    {L"CrashRunning", TestBehaviour::CrashRunning},
    {L"StackOverflow", TestBehaviour::StackOverflow},
    {L"FailSilently", TestBehaviour::FailSilently},
    {L"FailAfterStopped", TestBehaviour::FailAfterStopped},
    {L"ReleaseThrows", TestBehaviour::ReleaseThrows},
    {L"SlowLoad", TestBehaviour::SlowLoad},
    {L"CreateFails", TestBehaviour::CreateFails},
    {L"CreateThrows", TestBehaviour::CreateThrows},
    {L"CreateGivesNull", TestBehaviour::CreateGivesNull},
    {L"ClassFails", TestBehaviour::ClassFails},
    {L"ClassThrows", TestBehaviour::ClassThrows},
    {L"ClassCrashes", TestBehaviour::ClassCrashes},
    {L"ClassRefuses", TestBehaviour::ClassRefuses},
};

template <typename Text>
void ReplaceAll(Text& text, const Text& from, const Text& to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != Text::npos; at += to.size())
    {
        text.replace(at, from.size(), to);
    }
}

/// Words are parted by blanks; quotes keep blanks and an empty word together.
std::vector<std::wstring> Split(const std::wstring& line)
{
    std::vector<std::wstring> words;
    bool isQuoted = false;
    bool isOpen = false;
    for (const wchar_t character : line)
    {
        isQuoted = isQuoted != (character == L'"');
        if (character == L' ' && !isQuoted)
        {
            isOpen = false;
            continue;
        }
        if (!std::exchange(isOpen, true))
        {
            words.emplace_back();
        }
        if (character != L'"')
        {
            words.back() += character;
        }
    }
    return words;
}

std::wstring Join(
    std::vector<std::wstring>::const_iterator begin, std::vector<std::wstring>::const_iterator end)
{
    std::wstring text;
    for (; begin != end; ++begin)
    {
        text += (text.empty() ? L"" : L" ") + *begin;
    }
    return text;
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

std::wstring HostKey(const std::wstring& below)
{
    return std::wstring(kHostKey) + L"\\" + below;
}

void DeleteService(const std::wstring& name)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, DELETE);
    ::DeleteService(service.Get());
}

/// Removes the services and classes that the product's keys name, then the keys and the link to them.
void ForgetProduct()
{
    Basalt::CRegKey root;
    if (root.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_READ) == ERROR_SUCCESS)
    {
        for (const std::wstring& group : TxCtl::SubKeyNames(root, kHostKey))
        {
            Basalt::CRegKey key;
            static_cast<void>(key.Open(HKEY_LOCAL_MACHINE, HostKey(group).c_str(), KEY_READ));
            for (const std::wstring& service : TxCtl::ValueNames(key, group))
            {
                std::wstring clsid;
                if (!service.empty() && key.ReadString(service.c_str(), clsid) == ERROR_SUCCESS &&
                    clsid.size() == 38)
                {
                    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kClasses + clsid).c_str());
                    DeleteService(service);
                }
            }
        }
    }
    root.Close();
    Basalt::CRegKey link; // Deleting the tree would follow it.
    if (link.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) ==
            ERROR_SUCCESS &&
        IsRegistryLink(Contract::kProductKey))
    {
        static_cast<void>(DeleteKeyByHandle(link.Get()));
    }
    link.Close();
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, Contract::kProductKey);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, Contract::kProductKey32);
}

} // namespace

CSession::CSession()
{
    ForgetProduct();
}

CSession::~CSession()
{
    m_host.reset();
    m_groups.clear();
    m_log.reset();
    ForgetProduct();
    for (const std::wstring& key : m_keys)
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    }
}

std::string CSession::Execute(const std::string& line)
{
    m_out.clear();
    dispatch(Split(expand(TxCtl::FromUtf8(line))));
    return normalise(Narrow(m_out));
}

void CSession::dispatch(const Words& words)
{
    const std::wstring& command = words[0];
    const auto is = [&](const wchar_t* name, std::size_t least) {
        return command == name && words.size() > least;
    };
    if (command == L"txsvcctl")
    {
        tool({words.begin() + 1, words.end()});
    }
    else if (is(L"group", 1))
    {
        group(words);
    }
    else if (is(L"class", 2))
    {
        setClass(words);
    }
    else if (is(L"set", 3))
    {
        setValue(words);
    }
    else if (is(L"show", 1))
    {
        showKey(words[1]);
    }
    else if (is(L"run", 1))
    {
        SkipControlPipe();
        const DWORD code =
            RunProcess(L"\"" + BesideTest(words[1]) + L"\" " + Join(words.begin() + 2, words.end()));
        print(L"exit code " + std::to_wstring(code));
    }
    else if (is(L"host", 1))
    {
        m_host = std::make_unique<CGroupRunner>(L"\"" + BesideTest(L"TxSvHost.exe") + L"\" " + words[1]);
    }
    else if (is(L"start", 1))
    {
        start(words);
    }
    else if (is(L"stop", 1))
    {
        m_host->Stop(words[1]);
        showState(words[1]);
    }
    else if (is(L"state", 1))
    {
        showState(words[1]);
    }
    else if (command == L"trim")
    {
        const auto name = Contract::WorkingSetEventName(m_host->ProcessId());
        const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
        print(event && ::SetEvent(event.Get()) ? L"signalled" : L"no event");
    }
    else if (command == L"end")
    {
        const std::optional<DWORD> code = m_host->WaitForExit();
        print(code ? L"exit code " + std::to_wstring(*code) : L"still running");
        m_host.reset();
    }
    else if (command == L"log")
    {
        const std::wstring what = words.size() > 1 ? words[1] : L"";
        what == L"on" ? void(m_log = std::make_unique<CHostLog>(m_folder.File(L"log")))
                      : showLog(what == L"whole");
    }
    else if (is(L"await", 2))
    {
        const std::wstring message = Join(words.begin() + 2, words.end());
        print(m_log->WaitFor(words[1], message) ? L"logged" : L"not logged");
    }
    else
    {
        ThrowError(L"no such command, or not enough words: " + command);
    }
}

void CSession::tool(const Words& arguments)
{
    CTranscript transcript(m_out);
    const auto code = static_cast<int>(TxCtl::RunTool(arguments, transcript));
    if (code != 0)
    {
        print(L"= " + std::to_wstring(code));
    }
}

void CSession::group(const Words& words)
{
    std::vector<TestSubsystem> subsystems;
    for (auto word = words.begin() + 2; word != words.end(); ++word)
    {
        const std::size_t equals = std::min(word->find(L'='), word->size());
        TestSubsystem subsystem{
            word->substr(0, equals), word->substr(std::min(equals + 1, word->size())), L""};
        for (const auto& [name, behaviour] : kBehaviours)
        {
            if (subsystem.clsid == name)
            {
                subsystem.clsid = TestClsidText(behaviour);
                subsystem.modulePath = BesideTest(kTestModule);
            }
        }
        subsystems.push_back(std::move(subsystem));
    }
    m_groups.push_back(std::make_unique<CTestGroup>(words[1], subsystems));
}

void CSession::setClass(const Words& words)
{
    const std::wstring path = kClasses + words[1];
    m_keys.push_back(path);
    Basalt::CRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, (path + L"\\InprocServer32").c_str(), KEY_ALL_ACCESS), path);
    ThrowIfFailed(key.WriteString(L"", words[2]), path);
    ThrowIfFailed(key.WriteString(L"ThreadingModel", L"Both"), path);
}

/// set KEY NAME dword:N, text:T or none; "@" names the default value.
void CSession::setValue(const Words& words)
{
    const std::wstring path = words[1] == L"record" ? kTestRecordKey : words[1];
    const std::wstring name = words[2] == L"@" ? L"" : words[2];
    const std::wstring& value = words[3];
    if (path == kTestRecordKey)
    {
        m_keys.push_back(path);
    }
    Basalt::CRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS), path);
    const DWORD status = value.starts_with(L"dword:")
                             ? key.WriteDword(name.c_str(), std::wcstoul(value.c_str() + 6, nullptr, 0))
                         : value.starts_with(L"text:") ? key.WriteString(name.c_str(), value.substr(5))
                                                       : key.DeleteValue(name.c_str());
    ThrowIfFailed(status, path + L" " + name);
}

void CSession::showKey(const std::wstring& path)
{
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return print(L"no key");
    }
    Words lines;
    for (const std::wstring& name : TxCtl::ValueNames(key, path))
    {
        DWORD number = 0;
        std::wstring text;
        const bool isNumber = key.ReadDword(name.c_str(), number) == ERROR_SUCCESS;
        const bool isText = !isNumber && key.ReadString(name.c_str(), text) == ERROR_SUCCESS;
        lines.push_back(
            (name.empty() ? L"@" : name) + L" " +
            (isNumber ? L"dword:" + std::to_wstring(number)
             : isText ? L"text:" + text
                      : L"other"));
    }
    for (const std::wstring& name : TxCtl::SubKeyNames(key, path))
    {
        lines.push_back(L"[" + name + L"]");
    }
    std::sort(lines.begin(), lines.end());
    std::for_each(lines.begin(), lines.end(), [this](const std::wstring& line) { print(line); });
}

/// By the stand-in; shows how it went once the service runs, or has stopped and its thread is gone.
void CSession::start(const Words& words)
{
    const std::wstring& service = words[1];
    if (const DWORD error = m_host->Start(service, {words.begin() + 2, words.end()}))
    {
        return print(L"error " + std::to_wstring(error));
    }
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (QueryService(service).dwCurrentState == SERVICE_START_PENDING && ::GetTickCount64() < end)
    {
        ::Sleep(1);
    }
    // One that ends by itself may run for a moment.
    if (words.size() > 2 ? m_host->WaitForState(service, SERVICE_STOPPED)
                         : QueryService(service).dwCurrentState == SERVICE_STOPPED)
    {
        static_cast<void>(m_host->WaitForThreadEnd(service));
    }
    showState(service);
}

void CSession::showState(const std::wstring& service)
{
    const SERVICE_STATUS_PROCESS status = QueryService(service);
    print(
        ServiceStateName(status.dwCurrentState) +
        (status.dwWin32ExitCode == 0 ? L"" : L", exit code " + std::to_wstring(status.dwWin32ExitCode)));
}

/// What was logged since it was last shown: level, function and message. Whole, thread after thread in the
/// order of their first messages; else without what is normal, in its order.
void CSession::showLog(bool isWhole)
{
    const std::vector<HostLogLine> lines = m_log->Lines();
    std::vector<std::pair<DWORD, std::wstring>> threads;
    for (; m_shownLines < lines.size(); ++m_shownLines)
    {
        const HostLogLine& line = lines[m_shownLines];
        if (!isWhole && line.level == L"Normal")
        {
            continue;
        }
        const DWORD id = isWhole ? line.threadId : 0;
        auto thread = std::ranges::find(threads, id, &std::pair<DWORD, std::wstring>::first);
        if (thread == threads.end())
        {
            thread = threads.insert(thread, {id, L""});
        }
        thread->second += line.level.substr(0, 4) + L" " + line.function + L": " + line.message + L"\n";
    }
    for (const auto& [id, text] : threads)
    {
        m_out += text;
    }
}

std::wstring CSession::expand(std::wstring text) const
{
    ReplaceAll<std::wstring>(text, L"{bin}", BesideTest(L""));
    ReplaceAll<std::wstring>(text, L"{tmp}", m_folder.Path());
    ReplaceAll<std::wstring>(text, L"{host}", kHostKey);
    for (const auto& [name, behaviour] : kBehaviours)
    {
        ReplaceAll<std::wstring>(text, std::wstring(L"{") + name + L"}", TestClsidText(behaviour));
    }
    return text;
}

std::string CSession::normalise(std::string text) const
{
    ReplaceAll<std::string>(text, Narrow(BesideTest(L"")), "{bin}");
    ReplaceAll<std::string>(text, Narrow(m_folder.Path()), "{tmp}");
    for (const auto& [name, behaviour] : kBehaviours)
    {
        ReplaceAll<std::string>(
            text, Narrow(TestClsidText(behaviour)), Narrow(std::wstring(L"{") + name + L"}"));
    }
    text = std::regex_replace(text, std::regex("\\d+\\.\\d+s"), "#s");
    return std::regex_replace(text, std::regex("process \\d+"), "process #");
}
