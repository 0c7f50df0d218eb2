#include "support/GroupRunner.h"

#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <cstring>
#include <utility>

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

constexpr DWORD kPollMs = 2;
constexpr DWORD kEndTimeoutMs = 5000;

/// Head of a request; the service's name and the arguments follow, each with its terminator.
struct RequestHead
{
    DWORD magic;
    DWORD totalBytes;
    DWORD nameLength; ///< In characters, with the terminator.
    DWORD control;
};

/// Reports a state in the manager's place.
/// @return 0 or the Win32 error.
DWORD MarkState(const std::wstring& name, DWORD state)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, kSetStatusAccess);
    if (!service)
    {
        return ::GetLastError();
    }
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
    status.dwCurrentState = state;
    const auto handle = reinterpret_cast<SERVICE_STATUS_HANDLE>(service.Get());
    return ::SetServiceStatus(handle, &status) ? ERROR_SUCCESS : ::GetLastError();
}

bool IsStarted(const std::wstring& name) noexcept
{
    SERVICE_STATUS status{};
    const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
    return service && ::QueryServiceStatus(service.Get(), &status) &&
           status.dwCurrentState != SERVICE_STOPPED;
}

const BYTE* StartAddress(HANDLE thread)
{
    constexpr auto kStartAddress = static_cast<THREADINFOCLASS>(9); // ThreadQuerySetWin32StartAddress
    static auto* const s_query = Basalt::FindExport<decltype(NtQueryInformationThread)>(
        ::GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationThread");
    const BYTE* address = nullptr;
    s_query(thread, kStartAddress, static_cast<void*>(&address), sizeof(address), nullptr);
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

CGroupRunner::CGroupRunner(const std::wstring& commandLine, DWORD timeoutMs)
    : m_timeoutMs(timeoutMs), m_event(::CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    if (!m_event)
    {
        ThrowError(L"CreateEventW", ::GetLastError());
    }
    createPipe();
    startProcess(commandLine);
    try
    {
        waitForConnection();
        findDispatcher();
        m_knownThreads = dispatcherThreads();
    }
    catch (...)
    {
        stopAll();
        throw;
    }
}

CGroupRunner::~CGroupRunner()
{
    stopAll();
}

DWORD CGroupRunner::Start(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
    if (!service)
    {
        return ::GetLastError();
    }
    if (QueryService(name).dwCurrentState != SERVICE_STOPPED)
    {
        return ERROR_SERVICE_ALREADY_RUNNING;
    }
    ThrowIfFailed(MarkState(name, SERVICE_START_PENDING), L"cannot mark " + name + L" as pending");

    std::wstring text = name + L'\0';
    for (const std::wstring& argument : arguments)
    {
        text += argument + L'\0';
    }
    m_threads[name] = 0; // From here on the manager is told of its end, whatever happens.
    const DWORD answer = transact(name, kControlStart, text + L'\0');
    if (answer != ERROR_SUCCESS)
    {
        m_threads.erase(name);
        ThrowIfFailed(MarkState(name, SERVICE_STOPPED), L"cannot mark " + name + L" as stopped");
        return answer;
    }
    std::vector<DWORD> threads = dispatcherThreads();
    for (const DWORD thread : threads)
    {
        if (std::find(m_knownThreads.begin(), m_knownThreads.end(), thread) == m_knownThreads.end())
        {
            m_threads[name] = thread;
        }
    }
    m_knownThreads = std::move(threads);
    return ERROR_SUCCESS;
}

void CGroupRunner::StartAndWait(const std::wstring& name, const std::vector<std::wstring>& arguments)
{
    ThrowIfFailed(Start(name, arguments), L"cannot start " + name);
    awaitState(name, SERVICE_RUNNING);
}

DWORD CGroupRunner::Control(const std::wstring& name, DWORD control)
{
    if (QueryService(name).dwCurrentState == SERVICE_STOPPED)
    {
        return ERROR_SERVICE_NOT_ACTIVE; // As the manager answers: the handler is not there any more.
    }
    return transact(name, control, {});
}

void CGroupRunner::Stop(const std::wstring& name)
{
    const DWORD answer = Control(name, SERVICE_CONTROL_STOP);
    // The last service's end may end the process before its answer is out.
    if (answer != ERROR_PROCESS_ABORTED)
    {
        ThrowIfFailed(answer, L"cannot stop " + name);
    }
    awaitState(name, SERVICE_STOPPED);
    if (!WaitForThreadEnd(name, m_timeoutMs))
    {
        ThrowError(L"the thread of " + name + L" goes on after it reported the end");
    }
}

bool CGroupRunner::WaitForState(const std::wstring& name, DWORD state, DWORD timeoutMs) const
{
    return WaitForServiceState(name, state, timeoutMs, m_process.Get());
}

bool CGroupRunner::WaitForThreadEnd(const std::wstring& name, DWORD timeoutMs) const
{
    const auto found = m_threads.find(name);
    if (found == m_threads.end())
    {
        return true;
    }
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    while (IsThreadKnown(found->second, m_processId))
    {
        if (::GetTickCount64() >= end)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
    return true;
}

std::optional<DWORD> CGroupRunner::WaitForExit(DWORD timeoutMs) const
{
    DWORD exitCode = 0;
    if (::WaitForSingleObject(m_process.Get(), timeoutMs) != WAIT_OBJECT_0 ||
        !::GetExitCodeProcess(m_process.Get(), &exitCode))
    {
        return std::nullopt;
    }
    return exitCode;
}

void CGroupRunner::awaitState(const std::wstring& name, DWORD state) const
{
    if (!WaitForState(name, state, m_timeoutMs))
    {
        const SERVICE_STATUS_PROCESS status = QueryService(name);
        ThrowError(
            name + L" should be " + ServiceStateName(state) + L" but is " +
            ServiceStateName(status.dwCurrentState) + L", exit code " +
            std::to_wstring(status.dwWin32ExitCode) + (WaitForExit(0) ? L"; the host has ended" : L""));
    }
}

/// Takes the next pipe number for the host that is started afterwards.
void CGroupRunner::createPipe()
{
    // The volatile key is there as soon as the manager runs, and opening the manager waits for that.
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    Basalt::CRegKey key;
    ThrowIfFailed(
        key.Open(HKEY_LOCAL_MACHINE, kCurrentPipeKey, KEY_READ | KEY_WRITE),
        L"this is not Wine: RegOpenKeyExW(ServiceCurrent)");
    DWORD number = 0;
    ThrowIfFailed(key.ReadDword(L"", number), L"reading ServiceCurrent");
    ++number;
    m_pipeName = kPipeName + std::to_wstring(number);
    m_pipe.Reset(::CreateNamedPipeW(
        m_pipeName.c_str(),
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
        1,
        kPipeBufferBytes,
        kPipeBufferBytes,
        0,
        nullptr));
    if (!m_pipe)
    {
        ThrowError(L"CreateNamedPipeW(" + m_pipeName + L")", ::GetLastError());
    }
    ThrowIfFailed(key.WriteDword(L"", number), L"writing ServiceCurrent");
}

void CGroupRunner::startProcess(const std::wstring& commandLine)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    std::wstring writable = commandLine; // CreateProcessW writes into it.
    if (!::CreateProcessW(
            nullptr,
            writable.data(),
            nullptr,
            nullptr,
            FALSE,
            DETACHED_PROCESS,
            nullptr,
            nullptr,
            &startup,
            &process))
    {
        ThrowError(L"CreateProcessW(" + commandLine + L")", ::GetLastError());
    }
    ::CloseHandle(process.hThread);
    m_process.Reset(process.hProcess);
    m_processId = process.dwProcessId;
}

void CGroupRunner::waitForConnection()
{
    OVERLAPPED operation{};
    operation.hEvent = m_event.Get();
    const BOOL connected = ::ConnectNamedPipe(m_pipe.Get(), &operation);
    if (!connected && ::GetLastError() == ERROR_PIPE_CONNECTED)
    {
        return;
    }
    DWORD transferred = 0;
    const DWORD error = finish(connected, operation, transferred);
    if (error == ERROR_PROCESS_ABORTED)
    {
        const std::wstring exitCode = std::to_wstring(WaitForExit().value_or(STILL_ACTIVE));
        ThrowError(L"the host ended with " + exitCode + L" before it called the service dispatcher");
    }
    if (error == ERROR_TIMEOUT)
    {
        ThrowError(
            L"the host did not call the service dispatcher within " + std::to_wstring(m_timeoutMs) +
            L" ms, or another service was started meanwhile");
    }
    ThrowIfFailed(error, L"ConnectNamedPipe(" + m_pipeName + L")");
}

/// Finds where the code of the dispatcher's DLL is in the process, to know its threads by where they begin.
void CGroupRunner::findDispatcher()
{
    const Basalt::CFile modules(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, m_processId));
    MODULEENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = modules ? ::Module32FirstW(modules.Get(), &entry) : FALSE; more;
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
DWORD CGroupRunner::transact(const std::wstring& name, DWORD control, const std::wstring& arguments)
{
    const std::wstring text = name + L'\0' + arguments;
    const std::size_t textBytes = text.size() * sizeof(wchar_t);
    const RequestHead head{
        kRequestMagic,
        static_cast<DWORD>(sizeof(RequestHead) + textBytes),
        static_cast<DWORD>(name.size() + 1),
        control};
    std::vector<BYTE> request(head.totalBytes);
    std::memcpy(request.data(), &head, sizeof(head));
    std::memcpy(request.data() + sizeof(head), text.data(), textBytes);

    DWORD answer = ERROR_SUCCESS;
    DWORD error = transfer(request.data(), head.totalBytes, EDirection::Send);
    if (error == ERROR_SUCCESS)
    {
        error = transfer(&answer, sizeof(answer), EDirection::Receive);
    }
    if (error == ERROR_PROCESS_ABORTED)
    {
        return error;
    }
    ThrowIfFailed(error, L"control " + std::to_wstring(control) + L" for " + name);
    return answer;
}

/// Moves all of the bytes through the pipe, however many it takes at a time.
DWORD CGroupRunner::transfer(void* data, DWORD size, EDirection direction)
{
    for (DWORD done = 0; done < size;)
    {
        OVERLAPPED operation{};
        operation.hEvent = m_event.Get();
        BYTE* const at = static_cast<BYTE*>(data) + done;
        const BOOL completed = direction == EDirection::Send
                                   ? ::WriteFile(m_pipe.Get(), at, size - done, nullptr, &operation)
                                   : ::ReadFile(m_pipe.Get(), at, size - done, nullptr, &operation);
        DWORD transferred = 0;
        const DWORD error = finish(completed, operation, transferred);
        if (error != ERROR_SUCCESS)
        {
            return error;
        }
        done += transferred;
    }
    return ERROR_SUCCESS;
}

/// Waits for an operation on the pipe, which is called off when the time is over or the process has ended.
/// @param completed what the call that began the operation returned; call this right after it.
DWORD CGroupRunner::finish(BOOL completed, OVERLAPPED& operation, DWORD& transferred)
{
    DWORD error = completed ? ERROR_SUCCESS : ::GetLastError();
    if (error == ERROR_SUCCESS || error == ERROR_IO_PENDING)
    {
        const HANDLE handles[] = {m_event.Get(), m_process.Get()};
        const DWORD wait = ::WaitForMultipleObjects(2, handles, FALSE, m_timeoutMs);
        if (wait != WAIT_OBJECT_0)
        {
            ::CancelIoEx(m_pipe.Get(), &operation);
        }
        error = ::GetOverlappedResult(m_pipe.Get(), &operation, &transferred, TRUE) ? ERROR_SUCCESS
                                                                                    : ::GetLastError();
        if (error == ERROR_OPERATION_ABORTED)
        {
            error = wait == WAIT_TIMEOUT ? ERROR_TIMEOUT : ERROR_PROCESS_ABORTED;
        }
    }
    const bool isPipeClosed =
        error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED;
    return isPipeClosed ? ERROR_PROCESS_ABORTED : error;
}

/// The threads that Wine's dispatcher made: its own, and one for each running service.
std::vector<DWORD> CGroupRunner::dispatcherThreads() const
{
    std::vector<DWORD> found;
    const Basalt::CFile threads(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = threads ? ::Thread32First(threads.Get(), &entry) : FALSE; more;
         more = ::Thread32Next(threads.Get(), &entry))
    {
        if (entry.th32OwnerProcessID != m_processId)
        {
            continue;
        }
        const Basalt::CHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, entry.th32ThreadID));
        const BYTE* const address = thread ? StartAddress(thread.Get()) : nullptr;
        if (address >= m_dispatcherBegin && address < m_dispatcherEnd)
        {
            found.push_back(entry.th32ThreadID);
        }
    }
    return found;
}

void CGroupRunner::stopAll() noexcept
{
    bool isListening = !m_threads.empty();
    for (const auto& [name, thread] : m_threads)
    {
        isListening = isListening && (!IsStarted(name) || tryStop(name));
    }
    if (!WaitForExit(isListening ? kEndTimeoutMs : 0))
    {
        ::TerminateProcess(m_process.Get(), ERROR_PROCESS_ABORTED);
        ::WaitForSingleObject(m_process.Get(), kEndTimeoutMs);
    }
    // The manager does not watch this process: without a word from here the services would run for ever.
    for (const auto& [name, thread] : m_threads)
    {
        if (IsStarted(name))
        {
            static_cast<void>(MarkState(name, SERVICE_STOPPED));
        }
    }
}

bool CGroupRunner::tryStop(const std::wstring& name) noexcept
try
{
    Stop(name);
    return true;
}
catch (const std::exception&)
{
    return false;
}
