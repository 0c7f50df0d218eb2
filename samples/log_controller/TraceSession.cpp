#include "TraceSession.h"

#include <cstring>
#include <vector>

#include "TxLogController.h"
#include "TxLogSecurity.h"

namespace
{

constexpr DWORD kTurnWaitMs = 10000;

/// What the trace functions want: the properties with room for both names behind them.
class CProperties
{
public:
    CProperties() : m_memory(kNameOffset + 2 * kNameBytes)
    {
        EVENT_TRACE_PROPERTIES& properties = *Get();
        properties.Wnode.BufferSize = static_cast<ULONG>(m_memory.size());
        properties.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
        properties.LoggerNameOffset = kNameOffset;
        properties.LogFileNameOffset = kNameOffset + kNameBytes;
    }

    [[nodiscard]] EVENT_TRACE_PROPERTIES* Get() noexcept
    {
        return reinterpret_cast<EVENT_TRACE_PROPERTIES*>(m_memory.data());
    }

    bool SetFile(const std::wstring& path)
    {
        const std::size_t size = (path.size() + 1) * sizeof(wchar_t);
        if (size > kNameBytes)
        {
            return false;
        }
        std::memcpy(&m_memory[kNameOffset + kNameBytes], path.c_str(), size);
        return true;
    }

private:
    static constexpr ULONG kNameBytes = 1024 * sizeof(wchar_t); // The system's own limit for a name.
    static constexpr ULONG kNameOffset = sizeof(EVENT_TRACE_PROPERTIES);

    std::vector<BYTE> m_memory; // Zeroed, and aligned as any object may want it.
};

} // namespace

/// Keeps the other processes out for its scope, so that starting, joining and stopping do not cross. Where a
/// user has made the mutex first, or it is not to be had in time, it goes on without: a session that crossing
/// processes begin twice or stop too early costs less than none at all.
class CTraceSession::CTurn
{
public:
    explicit CTurn(const std::wstring& sessionName)
        : m_mutex(TxSdk::OpenLogMutex((L"Global\\" + sessionName).c_str()))
    {
        const DWORD wait =
            m_mutex != nullptr ? ::WaitForSingleObject(m_mutex, kTurnWaitMs) : DWORD{WAIT_FAILED};
        m_isHeld = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
    }
    ~CTurn()
    {
        if (m_isHeld)
        {
            ::ReleaseMutex(m_mutex);
        }
        if (m_mutex != nullptr)
        {
            ::CloseHandle(m_mutex);
        }
    }
    CTurn(const CTurn&) = delete;
    CTurn& operator=(const CTurn&) = delete;

private:
    HANDLE m_mutex;
    bool m_isHeld = false;
};

CTraceSession::CTraceSession(const std::wstring& folder, const std::wstring& application)
    : m_folder(folder), m_name(L"Tarvex.Log." + application), m_path(folder + L"\\" + application)
{
}

CTraceSession::~CTraceSession()
{
    if (m_users != INVALID_HANDLE_VALUE)
    {
        ::CloseHandle(m_users);
    }
}

/// @param share 0 succeeds only when no other process uses the session.
HANDLE CTraceSession::openUsers(DWORD share) const
{
    return ::CreateFileW(
        (m_path + L".users").c_str(),
        GENERIC_READ,
        share,
        nullptr,
        OPEN_ALWAYS,
        FILE_ATTRIBUTE_NORMAL,
        nullptr);
}

DWORD CTraceSession::findOthers(bool& others) const
{
    const HANDLE alone = openUsers(0);
    const DWORD error = ::GetLastError();
    others = alone == INVALID_HANDLE_VALUE && error == ERROR_SHARING_VIOLATION;
    if (alone == INVALID_HANDLE_VALUE)
    {
        return others ? DWORD{ERROR_SUCCESS} : error;
    }
    ::CloseHandle(alone);
    return ERROR_SUCCESS;
}

DWORD CTraceSession::Start()
{
    if (m_users != INVALID_HANDLE_VALUE)
    {
        return ERROR_SUCCESS;
    }
    const CTurn turn(m_name);
    DWORD status = TxSdk::TakeLogFolder(m_folder);
    bool others = false;
    if (status == ERROR_SUCCESS)
    {
        status = findOthers(others);
    }
    // Who is not the first joins the session, unless somebody has stopped it by hand.
    if (status == ERROR_SUCCESS && (!others || control(EVENT_TRACE_CONTROL_QUERY) != ERROR_SUCCESS))
    {
        status = begin();
    }
    if (status == ERROR_SUCCESS)
    {
        m_users = openUsers(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        status = m_users == INVALID_HANDLE_VALUE ? ::GetLastError() : DWORD{ERROR_SUCCESS};
    }
    return status;
}

DWORD CTraceSession::begin()
{
    static_cast<void>(control(EVENT_TRACE_CONTROL_STOP)); // One that a crashed process left behind.
    const std::wstring file = m_path + L".etl";
    // Not when a viewer holds the old one: recording goes before keeping it.
    ::MoveFileExW(file.c_str(), (m_path + L".old.etl").c_str(), MOVEFILE_REPLACE_EXISTING);

    CProperties properties;
    EVENT_TRACE_PROPERTIES& wanted = *properties.Get();
    wanted.Wnode.ClientContext = 1; // Times from the performance counter.
    wanted.LogFileMode = EVENT_TRACE_FILE_MODE_CIRCULAR;
    wanted.MaximumFileSize = kFileMegabytes;
    wanted.FlushTimer = 1; // Seconds: a crash of the machine costs no more.
    if (!properties.SetFile(file))
    {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    TRACEHANDLE session = 0;
    DWORD status = ::StartTraceW(&session, m_name.c_str(), properties.Get());
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    // Neither level nor flags: the hosts' own configuration decides.
    status = ::EnableTrace(TRUE, 0, 0, &TxSdk::kLogEventProvider, session);
    if (status != ERROR_SUCCESS)
    {
        static_cast<void>(control(EVENT_TRACE_CONTROL_STOP));
    }
    return status;
}

DWORD CTraceSession::control(ULONG code)
{
    CProperties properties;
    return ::ControlTraceW(0, m_name.c_str(), properties.Get(), code);
}

DWORD CTraceSession::Stop()
{
    if (m_users == INVALID_HANDLE_VALUE)
    {
        return ERROR_SUCCESS;
    }
    const CTurn turn(m_name);
    ::CloseHandle(m_users);
    m_users = INVALID_HANDLE_VALUE;
    bool others = false;
    const DWORD status = findOthers(others);
    return status == ERROR_SUCCESS && !others ? control(EVENT_TRACE_CONTROL_STOP) : status;
}

DWORD CTraceSession::Restart()
{
    if (m_users == INVALID_HANDLE_VALUE)
    {
        return ERROR_INVALID_STATE;
    }
    const CTurn turn(m_name);
    return begin();
}

DWORD CTraceSession::Flush()
{
    return m_users == INVALID_HANDLE_VALUE ? DWORD{ERROR_INVALID_STATE} : control(EVENT_TRACE_CONTROL_FLUSH);
}
