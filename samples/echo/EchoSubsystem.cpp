#include <windows.h>
#include <sddl.h>

#include <array>
#include <string>

#include "TxSubsystemModule.h"

namespace
{

/// The longest message in characters. A client that sends more is disconnected.
constexpr DWORD kMaxMessage = 1024;

/// A client that says nothing for so long, in milliseconds, makes way for the next one.
constexpr DWORD kClientTimeoutMs = 5000;

/// Full access for the system and the administrators; whoever is logged on may read and write. That includes
/// making further instances of the pipe, which the limit to one instance rules out.
constexpr wchar_t kPipeSecurity[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)";

/// Fails when a pipe of this name exists already, whoever made it.
HANDLE CreatePipe(const std::wstring& name, DWORD& error)
{
    SECURITY_ATTRIBUTES security = {sizeof(security), nullptr, FALSE};
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
            kPipeSecurity, SDDL_REVISION_1, &security.lpSecurityDescriptor, nullptr))
    {
        error = ::GetLastError();
        return nullptr;
    }
    HANDLE pipe = ::CreateNamedPipeW(
        name.c_str(),
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        1, // One client at a time: the others wait, as CallNamedPipeW and WaitNamedPipeW do.
        kMaxMessage * sizeof(wchar_t),
        kMaxMessage * sizeof(wchar_t),
        0,
        &security);
    error = ::GetLastError();
    ::LocalFree(security.lpSecurityDescriptor);
    return pipe;
}

} // namespace

/// Answers each message on the pipe \\.\pipe\TxEcho-<service name> with the same text (UTF-16, without a
/// terminator) after "echo from <service> in process <pid>: ". Serves one client after another.
class CEchoService : public TxSdk::CSubsystem
{
    DWORD OnStart(DWORD /*argc*/, LPWSTR* argv) override
    {
        m_prefix = L"echo from " + std::wstring(argv[0]) + L" in process " +
                   std::to_wstring(::GetCurrentProcessId()) + L": ";
        m_ioEvent.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!m_ioEvent)
        {
            return ::GetLastError();
        }
        DWORD error = ERROR_SUCCESS;
        m_pipe.Reset(CreatePipe(L"\\\\.\\pipe\\TxEcho-" + std::wstring(argv[0]), error));
        return m_pipe ? ERROR_SUCCESS : error;
    }

    void Run(HANDLE stopEvent) override
    {
        m_stopEvent = stopEvent;
        for (;;)
        {
            const DWORD error = connect();
            if (error != ERROR_SUCCESS)
            {
                if (error != ERROR_OPERATION_ABORTED) // Not because of the stop.
                {
                    SetExitCode(error);
                }
                break;
            }
            while (answer())
            {
            }
            ::DisconnectNamedPipe(m_pipe.Get());
        }
        m_pipe.Reset(); // The name is free before the service counts as stopped.
    }

    DWORD connect()
    {
        OVERLAPPED io = {};
        io.hEvent = m_ioEvent.Get();
        DWORD size = 0;
        const DWORD error = finish(::ConnectNamedPipe(m_pipe.Get(), &io), io, size, INFINITE);
        return error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA ? ERROR_SUCCESS : error;
    }

    /// Reads one message and answers it.
    /// @return false when the client is gone, silent or has sent too much, and when the service must stop.
    bool answer()
    {
        std::array<wchar_t, kMaxMessage> text;
        DWORD size = 0;
        OVERLAPPED io = {};
        io.hEvent = m_ioEvent.Get();
        const BOOL read = ::ReadFile(m_pipe.Get(), text.data(), sizeof(text), nullptr, &io);
        if (finish(read, io, size, kClientTimeoutMs) != ERROR_SUCCESS)
        {
            return false;
        }
        const std::wstring reply = m_prefix + std::wstring(text.data(), size / sizeof(wchar_t));
        const auto replySize = static_cast<DWORD>(reply.size() * sizeof(wchar_t));
        io = {};
        io.hEvent = m_ioEvent.Get();
        const BOOL written = ::WriteFile(m_pipe.Get(), reply.data(), replySize, nullptr, &io);
        return finish(written, io, size, kClientTimeoutMs) == ERROR_SUCCESS;
    }

    /// Waits until an operation is over, the service must stop or the time is up. In the last two cases the
    /// operation is cancelled; it has ended in any case, so the caller's buffer and @p io are free again.
    /// @param started what the call that started the operation returned; its last error is still set.
    DWORD finish(BOOL started, OVERLAPPED& io, DWORD& size, DWORD timeoutMs)
    {
        if (!started)
        {
            const DWORD error = ::GetLastError();
            if (error != ERROR_IO_PENDING)
            {
                return error;
            }
            const HANDLE events[] = {m_stopEvent, m_ioEvent.Get()}; // The first one counts when both are set.
            if (::WaitForMultipleObjects(2, events, FALSE, timeoutMs) != WAIT_OBJECT_0 + 1)
            {
                ::CancelIoEx(m_pipe.Get(), &io);
            }
        }
        return ::GetOverlappedResult(m_pipe.Get(), &io, &size, TRUE) ? ERROR_SUCCESS : ::GetLastError();
    }

    std::wstring m_prefix;
    TxSdk::CHandle m_pipe;
    TxSdk::CHandle m_ioEvent;
    HANDLE m_stopEvent = nullptr; // Borrowed from TxSdk::CSubsystem.
};

// {0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E02}
TX_SUBSYSTEM_MODULE(
    CEchoService, {0x0E0C3F5B, 0x6D52, 0x4E0B, {0x9B, 0x57, 0x2D, 0x4F, 0x9C, 0x7A, 0x1E, 0x02}})
