#include "control/ProcessEnd.h"

#include <atomic>
#include <cstdlib>

#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcSubsystemControlManager";

constexpr DWORD kTerminateDelayMs = 1000;
/// What the main thread gets, once it is on its way out, before the forced stop overtakes it.
constexpr DWORD kTearDownMs = 5000;

/// Shared by calls from other processes, exclusive for the end of this one.
SRWLOCK g_calls = SRWLOCK_INIT;
std::atomic<bool> g_isClosed = false; ///< The main thread is on its way out.

} // namespace

// The flag is looked at as well: the lock may admit further calls as long as one that it admitted runs.
CForeignCall::CForeignCall() noexcept
    : m_isAdmitted(!g_isClosed && ::TryAcquireSRWLockShared(&g_calls) != FALSE)
{
}

CForeignCall::~CForeignCall()
{
    if (m_isAdmitted)
    {
        ::ReleaseSRWLockShared(&g_calls);
    }
}

void CloseCalls() noexcept
{
    if (!g_isClosed.exchange(true))
    {
        ::AcquireSRWLockExclusive(&g_calls); // And never released.
    }
}

void LetAnswerLeave() noexcept
{
    ::Sleep(kTerminateDelayMs);
}

void BeginForcedStop(const wchar_t* function) noexcept
{
    TX_LOG(
        LogInformation,
        function,
        L"Reduce restart: StopServices failed, starts a thread to force stop TxSvHost");
    // The handle is never closed: it ends with the process, a second from now.
    if (::CreateThread(nullptr, 0, &MyTerminateThread, nullptr, 0, nullptr) == nullptr)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, function, L"Failed to start the thread that ends the process, error code %d", error);
    }
}

DWORD WINAPI MyTerminateThread(void* /*context*/) noexcept
{
    TX_LOG(
        LogInformation,
        L"CTxSvcSubsystemControlManager::MyTerminateThread",
        L"Reduce restart: Enter MyTerminateThread");
    ::Sleep(kTerminateDelayMs);
    if (g_isClosed)
    {
        ::Sleep(kTearDownMs); // The main thread ends the process, and only it can undo what it has done.
    }
    // The normal exit: destructors of static objects and exit handlers run.
    std::exit(0); // NOLINT(concurrency-mt-unsafe): services may be running, that is what it is for.
}
