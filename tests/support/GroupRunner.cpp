#include "support/GroupRunner.h"

#include <tlhelp32.h>
#include <winternl.h>

#include "base/RegKey.h"
#include "base/SystemLibrary.h"
#include "support/Errors.h"
#include "support/ServiceScope.h"

namespace
{

// Wine's control pipe, as seen with Wine 8.0.
constexpr wchar_t kCurrentPipeKey[] = L"SYSTEM\\CurrentControlSet\\Control\\ServiceCurrent";
constexpr wchar_t kPipeName[] = L"\\\\.\\pipe\\net\\NtControlPipe";
constexpr DWORD kRequestMagic = 0x57494E45;
constexpr DWORD kControlStart = 0;
constexpr DWORD kPipeBufferBytes = 4096;

/// What the manager itself may do with a service: report states for it.
constexpr DWORD kSetStatusAccess = 0x8000;

constexpr DWORD kTimeoutMs = 60000; ///< For a machine that does much else.
constexpr DWORD kPollMs = 2;

/// Head of a request; the service's name and the arguments follow, each with its terminator.
struct RequestHead
{
    DWORD magic;
    DWORD totalBytes;
    DWORD nameLength; ///< In characters, with the terminator.
    DWORD control;
};

/// Reports a state in the manager's place.
bool MarkState(const std::wstring& name, DWORD state)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, kSetStatusAccess);
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
    status.dwCurrentState = state;
    return ::SetServiceStatus(reinterpret_cast<SERVICE_STATUS_HANDLE>(service.Get()), &status) != FALSE;
}

/// Null until the thread runs.
const BYTE* StartAddress(DWORD threadId)
{
    constexpr auto kStartAddress = static_cast<THREADINFOCLASS>(9); // ThreadQuerySetWin32StartAddress
    static auto* const s_query = Basalt::FindExport<decltype(NtQueryInformationThread)>(
        ::GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationThread");
    const Basalt::CHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    const BYTE* address = nullptr;
    s_query(thread.Get(), kStartAddress, static_cast<void*>(&address), sizeof(address), nullptr);
    return address;
}

/// An ended thread can be opened as long as anybody holds a handle to it, as Wine's dispatcher does until it
/// has taken note of the end.
bool IsThreadKnown(DWORD threadId, DWORD processId)
{
    const Basalt::CHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    return thread && ::GetProcessIdOfThread(thread.Get()) == processId;
}

} // namespace

CGroupRunner::CGroupRunner(const std::wstring& commandLine)
    : m_event(::CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    createPipe();
    m_process.emplace(commandLine);
    try
    {
        waitForConnection();
        findDispatcher();
    }
    catch (...)
    {
        ::TerminateProcess(Process(), ERROR_PROCESS_ABORTED);
        throw;
    }
}

CGroupRunner::~CGroupRunner()
{
    ::TerminateProcess(Process(), ERROR_PROCESS_ABORTED);
    ::WaitForSingleObject(Process(), kTimeoutMs);
    // The manager does not watch this process: without a word from here the services would run for ever.
    for (const auto& [name, thread] : m_threads)
    {
        SERVICE_STATUS status{};
        const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
        if (::QueryServiceStatus(service.Get(), &status) && status.dwCurrentState != SERVICE_STOPPED)
        {
            MarkState(name, SERVICE_STOPPED);
        }
    }
}

DWORD CGroupRunner::Start(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    if (QueryService(name).dwCurrentState != SERVICE_STOPPED || !MarkState(name, SERVICE_START_PENDING))
    {
        ThrowError(L"cannot mark " + name + L" as pending");
    }
    std::wstring text = name + L'\0';
    for (const std::wstring& argument : arguments)
    {
        text += argument + L'\0';
    }
    m_threads[name] = 0; // From here on the manager is told of its end, whatever happens.
    const std::set<DWORD> before = threads();
    const DWORD answer = request(name, kControlStart, text + L'\0');
    if (answer == ERROR_SUCCESS)
    {
        m_threads[name] = findServiceThread(before);
    }
    else
    {
        MarkState(name, SERVICE_STOPPED);
    }
    return answer;
}

void CGroupRunner::StartAndWait(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    ThrowIfFailed(Start(name, arguments), L"cannot start " + name);
    awaitState(name, SERVICE_RUNNING);
}

void CGroupRunner::Stop(const std::wstring& name)
{
    const DWORD answer = request(name, SERVICE_CONTROL_STOP, {});
    // The last service's end may end the process before its answer is out.
    if (answer != ERROR_PROCESS_ABORTED)
    {
        ThrowIfFailed(answer, L"cannot stop " + name);
    }
    awaitState(name, SERVICE_STOPPED);
    if (!WaitForThreadEnd(name))
    {
        ThrowError(L"the thread of " + name + L" goes on after it reported the end");
    }
}

bool CGroupRunner::WaitForState(const std::wstring& name, DWORD state) const
{
    return WaitForServiceState(name, state, kTimeoutMs, Process());
}

bool CGroupRunner::WaitForThreadEnd(const std::wstring& name) const
{
    const auto found = m_threads.find(name);
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (found != m_threads.end() && IsThreadKnown(found->second, ProcessId()))
    {
        if (::GetTickCount64() >= end)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
    return true;
}

std::optional<DWORD> CGroupRunner::WaitForExit() const
{
    DWORD exitCode = 0;
    const bool hasEnded = ::WaitForSingleObject(Process(), kTimeoutMs) == WAIT_OBJECT_0 &&
                          ::GetExitCodeProcess(Process(), &exitCode);
    return hasEnded ? std::optional(exitCode) : std::nullopt;
}

void CGroupRunner::awaitState(const std::wstring& name, DWORD state) const
{
    if (!WaitForState(name, state))
    {
        const SERVICE_STATUS_PROCESS status = QueryService(name);
        ThrowError(
            name + L" should be " + ServiceStateName(state) + L" but is " +
            ServiceStateName(status.dwCurrentState) + L", exit code " +
            std::to_wstring(status.dwWin32ExitCode));
    }
}

/// Takes the next pipe number for the host that is started afterwards.
void CGroupRunner::createPipe()
{
    // The volatile key is there as soon as the manager runs, and opening the manager waits for that.
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    Basalt::CRegKey key;
    DWORD number = 0;
    ThrowIfFailed(
        key.Open(HKEY_LOCAL_MACHINE, kCurrentPipeKey, KEY_READ | KEY_WRITE),
        L"this is not Wine: opening its pipe");
    ThrowIfFailed(key.ReadDword(L"", number), L"reading the pipe's number");
    m_pipeName = kPipeName + std::to_wstring(++number);
    m_pipe.Reset(::CreateNamedPipeW(
        m_pipeName.c_str(),
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_BYTE,
        1,
        kPipeBufferBytes,
        kPipeBufferBytes,
        0,
        nullptr));
    ThrowIfFailed(m_pipe ? ERROR_SUCCESS : ::GetLastError(), L"creating " + m_pipeName);
    ThrowIfFailed(key.WriteDword(L"", number), L"writing the pipe's number");
}

void CGroupRunner::waitForConnection()
{
    OVERLAPPED operation{};
    operation.hEvent = m_event.Get();
    const BOOL isDone = ::ConnectNamedPipe(m_pipe.Get(), &operation);
    if (!isDone && ::GetLastError() == ERROR_PIPE_CONNECTED)
    {
        return;
    }
    const DWORD error = finish(isDone, operation);
    DWORD exitCode = STILL_ACTIVE;
    ::GetExitCodeProcess(Process(), &exitCode);
    ThrowIfFailed(
        error,
        L"the host did not call the dispatcher, or another service was started meanwhile; exit code " +
            std::to_wstring(exitCode));
}

/// Finds where the code of the dispatcher's DLL is in the process, to know its threads by where they begin.
void CGroupRunner::findDispatcher()
{
    const Basalt::CFile modules(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, ProcessId()));
    MODULEENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Module32FirstW(modules.Get(), &entry); more;
         more = ::Module32NextW(modules.Get(), &entry))
    {
        if (::lstrcmpiW(entry.szModule, L"sechost.dll") == 0)
        {
            m_dispatcherBegin = entry.modBaseAddr;
            m_dispatcherEnd = entry.modBaseAddr + entry.modBaseSize;
            return;
        }
    }
    ThrowError(L"the host has no sechost.dll");
}

/// Sends one request and reads its answer.
/// @param arguments the strings behind the service's name, each with its terminator, and one more; or
/// nothing.
/// @return the answer, or ERROR_PROCESS_ABORTED when the process ended before it came.
DWORD CGroupRunner::request(const std::wstring& name, DWORD control, const std::wstring& arguments)
{
    const std::wstring text = name + L'\0' + arguments;
    const auto textBytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    const RequestHead head{
        kRequestMagic, DWORD{sizeof(RequestHead)} + textBytes, static_cast<DWORD>(name.size() + 1), control};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    bytes.append(reinterpret_cast<const char*>(text.data()), textBytes);

    // Both fit into the pipe's buffers, so they come as a whole.
    OVERLAPPED operation{};
    operation.hEvent = m_event.Get();
    DWORD answer = ERROR_SUCCESS;
    DWORD error =
        finish(::WriteFile(m_pipe.Get(), bytes.data(), head.totalBytes, nullptr, &operation), operation);
    if (error == ERROR_SUCCESS)
    {
        error = finish(::ReadFile(m_pipe.Get(), &answer, sizeof(answer), nullptr, &operation), operation);
    }
    if (error != ERROR_PROCESS_ABORTED)
    {
        ThrowIfFailed(error, L"control " + std::to_wstring(control) + L" for " + name);
    }
    return error == ERROR_SUCCESS ? answer : error;
}

/// Waits for an operation on the pipe, which is called off when the time is over or the process has ended.
/// @param isDone what the call that began the operation returned; call this right after it.
DWORD CGroupRunner::finish(BOOL isDone, OVERLAPPED& operation)
{
    DWORD error = isDone ? ERROR_SUCCESS : ::GetLastError();
    if (error == ERROR_IO_PENDING)
    {
        const HANDLE handles[] = {m_event.Get(), Process()};
        const DWORD wait = ::WaitForMultipleObjects(2, handles, FALSE, kTimeoutMs);
        if (wait != WAIT_OBJECT_0)
        {
            ::CancelIoEx(m_pipe.Get(), &operation);
        }
        DWORD transferred = 0;
        error = ::GetOverlappedResult(m_pipe.Get(), &operation, &transferred, TRUE) ? ERROR_SUCCESS
                : wait == WAIT_TIMEOUT                                              ? ERROR_TIMEOUT
                                                                                    : ERROR_PROCESS_ABORTED;
    }
    const bool isPipeClosed = error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA;
    return isPipeClosed ? ERROR_PROCESS_ABORTED : error;
}

std::set<DWORD> CGroupRunner::threads() const
{
    std::set<DWORD> found;
    const Basalt::CFile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more;
         more = ::Thread32Next(snapshot.Get(), &entry))
    {
        if (entry.th32OwnerProcessID == ProcessId())
        {
            found.insert(entry.th32ThreadID);
        }
    }
    return found;
}

/// The dispatcher has made the service's thread before it answers. Where a new thread begins is not known
/// before it runs, which on a busy machine may be later; until then it may be anybody's.
/// @return 0 when it has ended already.
DWORD CGroupRunner::findServiceThread(const std::set<DWORD>& before) const
{
    for (const ULONGLONG end = ::GetTickCount64() + kTimeoutMs; ::GetTickCount64() < end; ::Sleep(kPollMs))
    {
        bool isOpen = false;
        for (const DWORD thread : threads())
        {
            const BYTE* const address = before.contains(thread) ? m_dispatcherEnd : StartAddress(thread);
            if (address >= m_dispatcherBegin && address < m_dispatcherEnd)
            {
                return thread;
            }
            isOpen = isOpen || address == nullptr;
        }
        if (!isOpen)
        {
            return 0;
        }
    }
    return 0;
}
