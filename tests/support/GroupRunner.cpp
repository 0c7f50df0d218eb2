#include "support/GroupRunner.h"

#include <winternl.h>

#include <algorithm>

#include "base/RegKey.h"
#include "base/SystemLibrary.h"
#include "support/Errors.h"
#include "support/Installation.h"

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
void MarkState(const std::wstring& name, const Basalt::CServiceHandle& service, DWORD state)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
    status.dwCurrentState = state;
    if (!::SetServiceStatus(reinterpret_cast<SERVICE_STATUS_HANDLE>(service.Get()), &status))
    {
        ThrowError(L"cannot mark the state of " + name);
    }
}

} // namespace

CGroupRunner::CGroupRunner(const std::wstring& commandLine)
{
    m_pipe.Reset(::CreateNamedPipeW(
        (kPipeName + std::to_wstring(SkipControlPipe())).c_str(),
        PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE | FILE_FLAG_OVERLAPPED,
        PIPE_TYPE_BYTE,
        1,
        kPipeBufferBytes,
        kPipeBufferBytes,
        0,
        nullptr));
    ThrowIfFailed(m_pipe ? ERROR_SUCCESS : ::GetLastError(), L"creating the control pipe");
    m_process.emplace(commandLine);
    DWORD transferred = 0;
    if (!awaitHost(
            [this](OVERLAPPED& operation) { return ::ConnectNamedPipe(m_pipe.Get(), &operation); },
            transferred))
    {
        ThrowError(
            L"the host ended with " + std::to_wstring(m_process->Wait()) + L" before its services came");
    }
    // A service that it does not know is refused by the dispatcher's own thread, which is there from then on.
    static_cast<void>(Request(L"", SERVICE_CONTROL_INTERROGATE, {}));
    static_cast<void>(newThreads());
}

CGroupRunner::~CGroupRunner()
{
    ::TerminateProcess(Process(), ERROR_PROCESS_ABORTED);
    ::WaitForSingleObject(Process(), kTimeoutMs);
    // The manager does not watch this process: without a word from here the services would run for ever.
    for (const auto& [name, service] : m_services)
    {
        if (QueryService(name).dwCurrentState > SERVICE_STOPPED)
        {
            MarkState(name, service.entry, SERVICE_STOPPED);
        }
    }
}

DWORD CGroupRunner::Start(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    Service& service = m_services[name]; // From here on the manager is told of its end, whatever happens.
    if (!service.entry)
    {
        service.entry = OpenServiceByName(name, kSetStatusAccess | SERVICE_QUERY_STATUS);
    }
    MarkState(name, service.entry, SERVICE_START_PENDING);
    std::wstring text = name + L'\0';
    for (const std::wstring& argument : arguments)
    {
        text += argument + L'\0';
    }
    const DWORD answer = Request(name, kControlStart, text + L'\0');
    if (answer != ERROR_SUCCESS)
    {
        MarkState(name, service.entry, SERVICE_STOPPED);
    }
    // The dispatcher has made the service's thread before it answers. Others may be new too: which one it is
    // shows when it has run.
    service.threads = newThreads();
    return answer;
}

void CGroupRunner::StartAndWait(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    ThrowIfFailed(Start(name, arguments), L"cannot start " + name);
    if (!WaitForState(name, SERVICE_RUNNING))
    {
        ThrowError(name + L" does not run");
    }
}

void CGroupRunner::Stop(const std::wstring& name)
{
    const DWORD answer = Request(name, SERVICE_CONTROL_STOP, {});
    // The last service's end may end the process before its answer is out.
    if (answer != ERROR_PROCESS_ABORTED)
    {
        ThrowIfFailed(answer, L"cannot stop " + name);
    }
    if (!WaitForState(name, SERVICE_STOPPED) || !WaitForThreadEnd(name))
    {
        ThrowError(name + L" or its thread goes on");
    }
}

bool CGroupRunner::WaitForState(const std::wstring& name, DWORD state, DWORD timeoutMs) const
{
    const auto found = m_services.find(name);
    return found == m_services.end() ? WaitForServiceState(name, state, timeoutMs, Process())
                                     : WaitForServiceState(found->second.entry, state, timeoutMs, Process());
}

bool CGroupRunner::WaitForThreadEnd(const std::wstring& name) const
{
    const auto found = m_services.find(name);
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (found != m_services.end() && std::ranges::any_of(found->second.threads, [this](DWORD thread) {
               return isServiceThread(thread);
           }))
    {
        if (::GetTickCount64() >= end)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
    return true;
}

/// Sends one request and reads its answer.
/// @param arguments the strings behind the service's name, each with its terminator, and one more; or
/// nothing.
/// @return the answer, or ERROR_PROCESS_ABORTED when the process ended before it came.
DWORD CGroupRunner::Request(const std::wstring& name, DWORD control, const std::wstring& arguments)
{
    const std::wstring text = name + L'\0' + arguments;
    const auto textBytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    const RequestHead head{
        kRequestMagic, DWORD{sizeof(RequestHead)} + textBytes, static_cast<DWORD>(name.size() + 1), control};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    bytes.append(reinterpret_cast<const char*>(text.data()), textBytes);

    DWORD answer = ERROR_SUCCESS;
    DWORD transferred = 0;
    const auto write = [&](OVERLAPPED& operation) {
        return ::WriteFile(m_pipe.Get(), bytes.data(), head.totalBytes, nullptr, &operation);
    };
    const auto read = [&](OVERLAPPED& operation) {
        return ::ReadFile(m_pipe.Get(), &answer, sizeof(answer), nullptr, &operation);
    };
    const bool hasAnswer =
        awaitHost(write, transferred) && awaitHost(read, transferred) && transferred == sizeof(answer);
    return hasAnswer ? answer : ERROR_PROCESS_ABORTED;
}

/// Begins something on the pipe and waits until the host has done its part.
/// @return false when it has ended.
bool CGroupRunner::awaitHost(const std::function<BOOL(OVERLAPPED&)>& begin, DWORD& transferred) const
{
    const Basalt::CHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED operation{};
    operation.hEvent = done.Get();
    if (!begin(operation))
    {
        switch (::GetLastError())
        {
        case ERROR_IO_PENDING:
            break;
        case ERROR_PIPE_CONNECTED:
            return true;
        default:
            return false;
        }
    }
    const HANDLE either[] = {done.Get(), Process()};
    const DWORD waited = ::WaitForMultipleObjects(ARRAYSIZE(either), either, FALSE, kTimeoutMs);
    if (waited != WAIT_OBJECT_0)
    {
        ::CancelIo(m_pipe.Get());
    }
    const bool isDone = ::GetOverlappedResult(m_pipe.Get(), &operation, &transferred, TRUE);
    if (waited == WAIT_TIMEOUT)
    {
        ::TerminateProcess(Process(), ERROR_TIMEOUT);
        ThrowError(L"the host does not answer, or another service was started before it was there");
    }
    return isDone;
}

/// Those that began since the last look. By the system's call, which begins with the newest: a snapshot looks
/// at every process there is, and all threads of a large group are many; either takes longer than a start.
std::vector<DWORD> CGroupRunner::newThreads()
{
    constexpr ULONG kNewestFirst = 1;
    static auto* const s_next =
        Basalt::FindExport<LONG NTAPI(HANDLE, HANDLE, ACCESS_MASK, ULONG, ULONG, HANDLE*)>(
            ::GetModuleHandleW(L"ntdll.dll"), "NtGetNextThread");
    std::vector<DWORD> found;
    FILETIME newest = m_newestThread;
    Basalt::CHandle thread;
    HANDLE next = nullptr;
    while (s_next(Process(), thread.Get(), THREAD_QUERY_INFORMATION, 0, kNewestFirst, &next) == 0)
    {
        thread.Reset(next);
        FILETIME begun{}, ended{}, kernel{}, user{};
        ::GetThreadTimes(next, &begun, &ended, &kernel, &user);
        if (::CompareFileTime(&begun, &m_newestThread) <= 0)
        {
            break;
        }
        newest = found.empty() ? begun : newest;
        found.push_back(::GetThreadId(next));
    }
    m_newestThread = newest;
    return found;
}

/// Whether it began in the DLL of Wine's dispatcher and is known there still. An ended thread can be opened
/// as long as anybody holds a handle to it, as the dispatcher does until it has taken note of the end.
///
/// Looked up in this process, where Wine's DLL has the same address: to ask the host for its memory, Wine has
/// one of the host's threads answer, and a host that ends at that moment never does: the question never
/// returns, or the host stays.
bool CGroupRunner::isServiceThread(DWORD thread) const
{
    constexpr auto kStartAddress = static_cast<THREADINFOCLASS>(9); // ThreadQuerySetWin32StartAddress
    static auto* const s_query = Basalt::FindExport<decltype(NtQueryInformationThread)>(
        ::GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationThread");
    const Basalt::CHandle handle(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, thread));
    void* address = nullptr;
    s_query(handle.Get(), kStartAddress, &address, sizeof(address), nullptr);
    MEMORY_BASIC_INFORMATION memory{};
    ::VirtualQuery(address, &memory, sizeof(memory));
    return handle && ::GetProcessIdOfThread(handle.Get()) == ProcessId() &&
           memory.AllocationBase == ::GetModuleHandleW(L"sechost.dll");
}

DWORD SkipControlPipe()
{
    Basalt::CRegKey key;
    DWORD number = 0;
    ThrowIfFailed(
        key.Open(HKEY_LOCAL_MACHINE, kCurrentPipeKey, KEY_READ | KEY_WRITE), L"opening Wine's pipe number");
    ThrowIfFailed(key.ReadDword(L"", number), L"reading Wine's pipe number");
    ThrowIfFailed(key.WriteDword(L"", number + 1), L"raising Wine's pipe number");
    return number + 1;
}
