#include "control/TxSvcSubsystemControlManager.h"

#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "base/ModuleFinder.h"
#include "base/Owned.h"
#include "base/ReturnAddress.h"
#include "config/TxSvcHostConfig.h"
#include "control/ReduceRestart.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcSubsystemControlManager";

/// What "/startservices" starts.
constexpr wchar_t kCoreGroup[] = L"TxCoreSvc";

/// Stopped last, in this order: the other services may need them to the end.
constexpr const wchar_t* kStoppedLast[] = {L"txpltsvc", L"txkscsvc"};

constexpr int kStopAttempts = 10;
constexpr DWORD kStopPollMs = 1000;
constexpr DWORD kTerminateDelayMs = 1000;
/// What the main thread gets, once it is on its way out, before the forced stop overtakes it.
constexpr DWORD kTearDownMs = 5000;

/// Shared by calls from other processes, exclusive for the end of this one.
SRWLOCK g_calls = SRWLOCK_INIT;
std::atomic<bool> g_isClosed = false; ///< The main thread is on its way out.

/// One call from another process; false when it comes too late. Never a wait: COM's end on the main thread
/// may wait for the call in its turn. The flag is looked at as well, since the lock may admit further calls
/// as long as one that it admitted runs.
class CCall
{
public:
    CCall() noexcept : m_isAdmitted(!g_isClosed && ::TryAcquireSRWLockShared(&g_calls) != FALSE) {}
    ~CCall()
    {
        if (m_isAdmitted)
        {
            ::ReleaseSRWLockShared(&g_calls);
        }
    }
    CCall(const CCall&) = delete;
    CCall& operator=(const CCall&) = delete;

    [[nodiscard]] explicit operator bool() const noexcept { return m_isAdmitted; }

private:
    bool m_isAdmitted;
};

void BeginForcedStop(const wchar_t* function) noexcept
{
    TX_LOG(
        LogInformation,
        function,
        L"Reduce restart: StopServices failed, starts a thread to force stop TxSvHost");
    // The handle is never closed: it ends with the process, a second from now.
    if (::CreateThread(nullptr, 0, &CTxSvcSubsystemControlManager::MyTerminateThread, nullptr, 0, nullptr) ==
        nullptr)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, function, L"Failed to start the thread that ends the process, error code %d", error);
    }
}

bool IsStoppedLast(const std::wstring& name) noexcept
{
    for (const wchar_t* last : kStoppedLast)
    {
        if (::CompareStringOrdinal(name.c_str(), -1, last, -1, TRUE) == CSTR_EQUAL)
        {
            return true;
        }
    }
    return false;
}

/// @param status what ControlService answered; kept up to date.
HRESULT WaitUntilStopped(SC_HANDLE service, const wchar_t* serviceName, SERVICE_STATUS& status) noexcept
{
    for (int attempt = 0; attempt < kStopAttempts && status.dwCurrentState != SERVICE_STOPPED; ++attempt)
    {
        ::Sleep(kStopPollMs);
        if (::QueryServiceStatus(service, &status) == FALSE)
        {
            const DWORD error = ::GetLastError();
            TX_LOG(
                LogError,
                L"StopService",
                L"Failed to QueryServiceStatus %s, error code %ld",
                serviceName,
                error);
            return HRESULT_FROM_WIN32(error);
        }
    }
    if (status.dwCurrentState != SERVICE_STOPPED)
    {
        TX_LOG(
            LogError, L"StopService", L"Failed to QueryServiceStatus %s after maximum attempts", serviceName);
        return E_FAIL;
    }
    return S_OK;
}

HRESULT StopOpenService(SC_HANDLE service, const wchar_t* serviceName) noexcept
{
    SERVICE_STATUS status{};
    if (::ControlService(service, SERVICE_CONTROL_STOP, &status) == FALSE)
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_SERVICE_NOT_ACTIVE)
        {
            return S_OK;
        }
        TX_LOG(
            LogInformation, L"StopService", L"Failed to stop service:%s, error code %d", serviceName, error);
        return HRESULT_FROM_WIN32(error);
    }
    return WaitUntilStopped(service, serviceName, status);
}

HRESULT StopGroup()
{
    constexpr wchar_t kFunction[] = L"StopServices";
    const CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    TX_LOG(LogInformation, kFunction, L"Reduce restart: Calling TxSvHost StopServices");
    SetReduceRestartStopping();

    // The group's name is not at hand here; the two texts have always had an empty one.
    std::vector<std::wstring> services;
    if (!config.GetServices(services))
    {
        TX_LOG(LogError, kFunction, L"Failed to get group services %s", L"");
        return E_FAIL;
    }
    if (services.empty())
    {
        TX_LOG(LogError, kFunction, L"There are no services in the group %s", L"");
        return S_OK;
    }

    // From a failure on, and combined by OR: the outcome is a failure whatever the services do, so that the
    // process is always ended.
    HRESULT result = E_FAIL;
    for (const std::wstring& name : services)
    {
        if (!IsStoppedLast(name))
        {
            result |= CTxSvcSubsystemControlManager::StopService(name.c_str());
        }
    }
    for (const wchar_t* last : kStoppedLast)
    {
        result |= CTxSvcSubsystemControlManager::StopService(last);
    }
    return result;
}

void StartOneService(SC_HANDLE manager, const std::wstring& name) noexcept
{
    const Basalt::CServiceHandle service(::OpenServiceW(manager, name.c_str(), SERVICE_START));
    if (!service)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogInformation, L"StartServices", L"Failed to open service:%s, error code %d", name, error);
        return;
    }
    if (::StartServiceW(service.Get(), 0, nullptr) == FALSE)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogInformation, L"StartServices", L"Failed to start service:%s, error code %d", name, error);
    }
}

HRESULT StartCoreGroup()
{
    constexpr wchar_t kFunction[] = L"StartServices";
    CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    TX_LOG(LogInformation, kFunction, L"Reduce restart: Calling TxSvHost StartServices");
    if (!config.Init(kCoreGroup))
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize CTxSvcHostConfig");
        return E_FAIL;
    }
    std::vector<std::wstring> services;
    if (!config.GetServices(services))
    {
        TX_LOG(LogError, kFunction, L"Failed to get group services");
        return E_FAIL;
    }
    if (services.empty())
    {
        TX_LOG(LogError, kFunction, L"There are no services in the group");
        return S_OK;
    }
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"Open SCManager failed. Error code:%d", error);
        return HRESULT_FROM_WIN32(error);
    }
    for (const std::wstring& name : services)
    {
        StartOneService(manager.Get(), name);
    }
    return E_FAIL; // Also when every service was started: callers know that this says nothing.
}

/// Runs one of the two above, which may run out of memory, and releases the configuration if asked.
HRESULT RunAndRelease(HRESULT (*work)(), const wchar_t* function, bool releaseConfig) noexcept
{
    HRESULT result = E_OUTOFMEMORY;
    try
    {
        result = work();
    }
    catch (const std::exception&)
    {
        TX_LOG(LogError, function, L"Out of memory");
    }
    if (releaseConfig)
    {
        CTxSvcHostConfig::ReleaseInstance();
    }
    return result;
}

} // namespace

HRESULT STDMETHODCALLTYPE CTxSvcSubsystemControlManager::QueryInterface(REFIID iid, void** object) noexcept
{
    if (iid == IID_IUnknown || iid == IID_ITxSvcSubsystemControlManager)
    {
        *object = static_cast<ITxSvcSubsystemControlManager*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CTxSvcSubsystemControlManager::AddRef() noexcept
{
    return ++m_references;
}

ULONG STDMETHODCALLTYPE CTxSvcSubsystemControlManager::Release() noexcept
{
    return --m_references; // Nothing is deleted, also at zero: see the class.
}

HRESULT STDMETHODCALLTYPE CTxSvcSubsystemControlManager::Reserved() noexcept
{
    return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE
CTxSvcSubsystemControlManager::TxStopSvcSubsystem(DWORD /*reserved*/, DWORD* processId) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcSubsystemControlManager::TxStopSvcSubsystem";
    if (processId != nullptr)
    {
        *processId = ::GetCurrentProcessId();
    }
    const CCall call;
    if (!call)
    {
        return E_FAIL; // As for every stop: the process ends.
    }
    const HRESULT result = StopServices(false);
    if (FAILED(result))
    {
        BeginForcedStop(kFunction);
    }
    return result;
}

void CTxSvcSubsystemControlManager::CloseCalls() noexcept
{
    if (!g_isClosed.exchange(true))
    {
        ::AcquireSRWLockExclusive(&g_calls); // And never released.
    }
}

void CTxSvcSubsystemControlManager::LetAnswerLeave() noexcept
{
    ::Sleep(kTerminateDelayMs);
}

HRESULT CTxSvcSubsystemControlManager::StopServices(bool releaseConfig) noexcept
{
    return RunAndRelease(&StopGroup, L"StopServices", releaseConfig);
}

HRESULT CTxSvcSubsystemControlManager::StopService(const wchar_t* serviceName) noexcept
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, L"StopService", L"Open SCManager failed. Error code:%d", error);
        return HRESULT_FROM_WIN32(error);
    }
    const Basalt::CServiceHandle service(
        ::OpenServiceW(manager.Get(), serviceName, SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (!service)
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_SERVICE_DOES_NOT_EXIST)
        {
            return S_OK;
        }
        TX_LOG(
            LogInformation, L"StopService", L"Failed to open service:%s, error code %d", serviceName, error);
        return HRESULT_FROM_WIN32(error);
    }
    return StopOpenService(service.Get(), serviceName);
}

HRESULT CTxSvcSubsystemControlManager::StartServices(bool releaseConfig) noexcept
{
    return RunAndRelease(&StartCoreGroup, L"StartServices", releaseConfig);
}

DWORD WINAPI CTxSvcSubsystemControlManager::MyTerminateThread(void* /*context*/) noexcept
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

template <int Number>
__declspec(noinline) HRESULT STDMETHODCALLTYPE
CGuardedClassObject<Number>::CreateObject(REFIID iid, void** object) noexcept
{
    const CCall call; // Before the caller is checked: the end of the process waits for that, too.
    if (!call)
    {
        if (object != nullptr)
        {
            *object = nullptr;
        }
        return CO_E_SERVER_STOPPING;
    }
    if (Basalt::CheckTrustedCode(TX_RETURN_ADDRESS()) != ERROR_SUCCESS)
    {
        return E_ACCESSDENIED;
    }
    return CreateObjectUnguarded(iid, object);
}

template class CGuardedClassObject<1>;
template class CGuardedClassObject<2>;

HRESULT STDMETHODCALLTYPE
CoTxSvcSubsystemControlManagerClassFactory::QueryInterface(REFIID iid, void** object) noexcept
{
    if (iid == IID_IUnknown || iid == IID_ITxSvcClassObject)
    {
        *object = static_cast<CGuardedClassObject<1>*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CoTxSvcSubsystemControlManagerClassFactory::AddRef() noexcept
{
    return 2;
}

ULONG STDMETHODCALLTYPE CoTxSvcSubsystemControlManagerClassFactory::Release() noexcept
{
    return 1;
}

HRESULT STDMETHODCALLTYPE
CoTxSvcSubsystemControlManagerClassFactory::CreateObjectUnguarded(REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_INVALIDARG;
    }
    *object = nullptr;
    auto* const manager = new (std::nothrow) CTxSvcSubsystemControlManager;
    if (manager == nullptr)
    {
        return E_OUTOFMEMORY;
    }
    if (FAILED(manager->QueryInterface(iid, object)))
    {
        delete manager;
        return E_NOINTERFACE;
    }
    return S_OK;
}

HRESULT CoTxSvcSubsystemControlManagerClassFactory::RegisterClassObject() noexcept
{
    constexpr wchar_t kFunction[] = L"CoTxSvcSubsystemControlManagerClassFactory::RegisterClassObject";
    const HRESULT result = ::CoRegisterClassObject(
        CLSID_TxSvcSubsystemControlManager,
        static_cast<CGuardedClassObject<1>*>(this),
        CLSCTX_LOCAL_SERVER,
        REGCLS_MULTIPLEUSE,
        &m_cookie);
    if (FAILED(result))
    {
        TX_LOG(LogError, kFunction, L"CoRegisterClassObject failed with error %x", result);
    }
    else
    {
        TX_LOG(LogInformation, kFunction, L"CoRegisterClassObject succeeded");
    }
    return result;
}

HRESULT CoTxSvcSubsystemControlManagerClassFactory::Revoke() noexcept
{
    if (m_cookie != 0)
    {
        ::CoRevokeClassObject(m_cookie);
        m_cookie = 0;
    }
    return S_OK;
}
