#pragma once

#include <windows.h>

#include <atomic>
#include <new>
#include <type_traits>

#include "TxSvcSubsystem.h"

/// @file
/// Everything a hosted service needs beside its own work. A complete service DLL is
///
///     #include "TxSubsystemModule.h"
///
///     class CMyService : public TxSdk::CSubsystem
///     {
///         void Run(HANDLE stopEvent) override { ... work until stopEvent is signalled ... }
///     };
///
///     // {your own new GUID}
///     TX_SUBSYSTEM_MODULE(CMyService, {0x..., 0x..., 0x..., {0x..., ...}})
///
/// linked with advapi32. The host makes one object of the class for each start of the service.

namespace TxSdk
{

/// How long the service control manager waits for the next report while the service starts or stops, in
/// milliseconds, until ReportProgress says otherwise.
inline constexpr DWORD kWaitHintMs = 10000;

/// Owns a kernel handle and closes it. Null and INVALID_HANDLE_VALUE both stand for nothing.
class CHandle
{
public:
    CHandle() noexcept = default;
    explicit CHandle(HANDLE handle) noexcept : m_handle(handle) {}
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;
    ~CHandle() { Reset(); }

    [[nodiscard]] explicit operator bool() const noexcept
    {
        return m_handle != nullptr && m_handle != INVALID_HANDLE_VALUE;
    }
    [[nodiscard]] HANDLE Get() const noexcept { return m_handle; }

    void Reset(HANDLE handle = nullptr) noexcept
    {
        if (*this)
        {
            ::CloseHandle(m_handle);
        }
        m_handle = handle;
    }

private:
    HANDLE m_handle = nullptr;
};

namespace Detail
{

/// Objects of this DLL that somebody still holds a reference to.
inline std::atomic<long> g_objectCount = 0;

/// IUnknown of an object with one interface. It is born with one reference.
template <typename Interface, const IID& Id>
class CUnknown : public Interface
{
public:
    CUnknown(const CUnknown&) = delete;
    CUnknown& operator=(const CUnknown&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (object == nullptr)
        {
            return E_POINTER;
        }
        if (iid == Id || iid == __uuidof(IUnknown))
        {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
        {
            delete this;
        }
        return left;
    }

protected:
    CUnknown() noexcept { ++g_objectCount; }
    virtual ~CUnknown() { --g_objectCount; }

private:
    std::atomic<ULONG> m_references = 1;
};

class CExclusiveLock
{
public:
    explicit CExclusiveLock(SRWLOCK& lock) noexcept : m_lock(lock) { ::AcquireSRWLockExclusive(&m_lock); }
    CExclusiveLock(const CExclusiveLock&) = delete;
    CExclusiveLock& operator=(const CExclusiveLock&) = delete;
    ~CExclusiveLock() { ::ReleaseSRWLockExclusive(&m_lock); }

private:
    SRWLOCK& m_lock;
};

class CSharedLock
{
public:
    explicit CSharedLock(SRWLOCK& lock) noexcept : m_lock(lock) { ::AcquireSRWLockShared(&m_lock); }
    CSharedLock(const CSharedLock&) = delete;
    CSharedLock& operator=(const CSharedLock&) = delete;
    ~CSharedLock() { ::ReleaseSRWLockShared(&m_lock); }

private:
    SRWLOCK& m_lock;
};

} // namespace Detail

/// Base class of a hosted service: does the talking with the service control manager (SCM), so that the
/// derived class has only its work to do. All that a derived class may override has a default.
///
/// Who calls what, on which thread:
/// - The host constructs the object and calls TxServiceMain on the service's own thread, which is in COM's
///   multithreaded apartment. OnStart and then Run are called on this thread.
/// - OnStop is called on the thread that receives the controls of all services of the process, while Run
/// works.
/// - The destructor runs after SERVICE_STOPPED was reported. When that was the last service, the process may
///   end at any moment from then on: do all clean-up that matters (files, other processes, hardware) before
///   Run or a failing OnStart returns, not in the destructor.
///
/// An exception that leaves OnStart, Run or OnStop ends the service with ERROR_EXCEPTION_IN_SERVICE (1064).
/// The service accepts STOP and SHUTDOWN, both end it in the same way. All services of the group share the
/// process: never call ExitProcess, set process-wide state (current folder, locale) or leave a thread behind.
/// @see https://learn.microsoft.com/windows/win32/services/service-programs
class CSubsystem : public Detail::CUnknown<ITxSvcSubsystem, IID_ITxSvcSubsystem>
{
public:
    /// Called by the host. Override the methods below instead of this one.
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        if (argc == 0 || argv == nullptr || result == nullptr)
        {
            return E_INVALIDARG;
        }
        m_stopEvent.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!m_stopEvent)
        {
            return HRESULT_FROM_WIN32(::GetLastError());
        }
        link();
        m_statusHandle =
            ::RegisterServiceCtrlHandlerExW(argv[0], &handleControl, reinterpret_cast<void*>(m_id));
        if (m_statusHandle == nullptr)
        {
            const DWORD error = ::GetLastError();
            unlink();
            return HRESULT_FROM_WIN32(error); // Nothing can be reported from here: the host does it.
        }

        execute(argc, argv);

        unlink();
        m_stopEvent.Reset();
        *result = m_unloadAfterStop ? kTxSvcUnloadModule : m_exitCode.load();
        report(SERVICE_STOPPED, 0);
        return S_OK;
    }

protected:
    CSubsystem() noexcept = default;
    ~CSubsystem() override { unlink(); } // Still linked when a fault threw the thread out of TxServiceMain.

    /// Gets the service ready. The SCM shows SERVICE_START_PENDING meanwhile and allows kWaitHintMs; call
    /// ReportProgress when it takes longer. No control arrives before this method has returned.
    /// @param argc number of strings in @p argv, at least 1.
    /// @param argv the service's name, then the arguments given to StartService; valid until Run returns.
    /// @return 0: the service is reported running and Run is called. Otherwise a Win32 error: the service is
    ///         reported stopped with it.
    virtual DWORD OnStart(DWORD argc, LPWSTR* argv)
    {
        static_cast<void>(argc);
        static_cast<void>(argv);
        return ERROR_SUCCESS;
    }

    /// The service's work. Return soon after @p stopEvent was signalled; returning earlier ends the service
    /// too.
    /// @param stopEvent manual-reset, signalled once the service must stop, after OnStop. Borrowed.
    virtual void Run(HANDLE stopEvent) { ::WaitForSingleObject(stopEvent, INFINITE); }

    /// For what cannot wait for the stop event, such as cancelling a blocking call of Run. Called once at
    /// most. Be quick: no service of the process receives a control meanwhile. Do not wait for Run to return:
    /// the service's thread waits for this method before it reports SERVICE_STOPPED.
    virtual void OnStop() {}

    /// Says that starting (from OnStart) or stopping (from Run, after the stop event) is getting on: repeats
    /// the pending state with the next checkpoint. Does nothing in any other state. Any thread.
    /// @param waitHintMs time until the next report, in milliseconds.
    void ReportProgress(DWORD waitHintMs = kWaitHintMs) noexcept
    {
        const Detail::CExclusiveLock lock(m_statusLock);
        if (isPending(m_status.dwCurrentState))
        {
            reportLocked(m_status.dwCurrentState, waitHintMs);
        }
    }

    /// The Win32 error that SERVICE_STOPPED reports after Run has returned. The SCM takes a service that
    /// stopped with an error for failed only if it is set up so (SERVICE_CONFIG_FAILURE_ACTIONS_FLAG). Any
    /// thread.
    void SetExitCode(DWORD win32Error) noexcept { m_exitCode = win32Error; }

    /// Asks the host to unload the DLL when this service has stopped, to give its memory back. Only if then
    /// no thread, callback, hook or object of the DLL is left. The DLL stays loaded while another service of
    /// the process runs from it. Any thread, before Run returns.
    void SetUnloadAfterStop() noexcept { m_unloadAfterStop = true; }

private:
    static constexpr bool isPending(DWORD state) noexcept
    {
        return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    }

    void execute(DWORD argc, LPWSTR* argv) noexcept
    {
        try
        {
            report(SERVICE_START_PENDING, kWaitHintMs);
            const DWORD error = OnStart(argc, argv);
            if (error != ERROR_SUCCESS)
            {
                m_exitCode = error;
                return;
            }
            report(SERVICE_RUNNING, 0);
            Run(m_stopEvent.Get());
        }
        catch (...)
        {
            m_exitCode = ERROR_EXCEPTION_IN_SERVICE;
        }
    }

    void report(DWORD state, DWORD waitHintMs) noexcept
    {
        const Detail::CExclusiveLock lock(m_statusLock);
        reportLocked(state, waitHintMs);
    }

    void reportLocked(DWORD state, DWORD waitHintMs) noexcept
    {
        const DWORD checkPoint = state == m_status.dwCurrentState ? m_status.dwCheckPoint + 1 : 1;
        m_status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
        m_status.dwCurrentState = state;
        m_status.dwControlsAccepted =
            state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
        m_status.dwWin32ExitCode = state == SERVICE_STOPPED ? m_exitCode.load() : NO_ERROR;
        m_status.dwCheckPoint = isPending(state) ? checkPoint : 0;
        m_status.dwWaitHint = waitHintMs;
        ::SetServiceStatus(m_statusHandle, &m_status);
    }

    /// On the thread that receives the controls.
    void beginStop() noexcept
    {
        {
            const Detail::CExclusiveLock lock(m_statusLock);
            if (m_status.dwCurrentState != SERVICE_RUNNING)
            {
                return; // Stopping already: SHUTDOWN may follow STOP.
            }
            reportLocked(SERVICE_STOP_PENDING, kWaitHintMs);
        }
        try
        {
            OnStop();
        }
        catch (...)
        {
            m_exitCode = ERROR_EXCEPTION_IN_SERVICE;
        }
        ::SetEvent(m_stopEvent.Get());
    }

    static DWORD WINAPI handleControl(DWORD control, DWORD /*type*/, void* /*data*/, void* context) noexcept
    {
        switch (control)
        {
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR; // The SCM knows the state from the last report.
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN:
            break;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
        }
        const Detail::CSharedLock lock(s_liveLock);
        for (CSubsystem* subsystem = s_live; subsystem != nullptr; subsystem = subsystem->m_next)
        {
            if (subsystem->m_id == reinterpret_cast<ULONG_PTR>(context))
            {
                subsystem->beginStop();
                break;
            }
        }
        return NO_ERROR;
    }

    void link() noexcept
    {
        const Detail::CExclusiveLock lock(s_liveLock);
        m_id = ++s_lastId;
        m_next = s_live;
        s_live = this;
    }

    /// Also waits until a control that is just being handled is done with this object.
    void unlink() noexcept
    {
        const Detail::CExclusiveLock lock(s_liveLock);
        for (CSubsystem** place = &s_live; *place != nullptr; place = &(*place)->m_next)
        {
            if (*place == this)
            {
                *place = m_next;
                break;
            }
        }
    }

    // The SCM may have a control on its way while the service stops by itself, and a handler cannot be taken
    // back. So the handler gets a number, never used twice, and looks among the services that still run.
    static inline SRWLOCK s_liveLock = SRWLOCK_INIT; ///< Guards the list: s_live, m_next, m_id, s_lastId.
    static inline CSubsystem* s_live = nullptr;
    static inline ULONG_PTR s_lastId = 0;
    CSubsystem* m_next = nullptr;
    ULONG_PTR m_id = 0;

    SRWLOCK m_statusLock = SRWLOCK_INIT; ///< Guards m_status and keeps the reports in their order.
    SERVICE_STATUS m_status{};
    SERVICE_STATUS_HANDLE m_statusHandle = nullptr; ///< Set before the first report, so before any control.
    CHandle m_stopEvent;                            ///< Changed only while the object is not linked.
    std::atomic<DWORD> m_exitCode = NO_ERROR;
    std::atomic<bool> m_unloadAfterStop = false;
};

/// The class object of one service class: makes its objects.
template <typename Service>
class CClassObject final : public Detail::CUnknown<ITxSvcClassObject, IID_ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        if (object == nullptr)
        {
            return E_POINTER;
        }
        *object = nullptr;
        try
        {
            ITxSvcSubsystem* const subsystem = new Service;
            const HRESULT result = subsystem->QueryInterface(riid, object);
            subsystem->Release();
            return result;
        }
        catch (const std::bad_alloc&)
        {
            return E_OUTOFMEMORY;
        }
        catch (...)
        {
            return E_UNEXPECTED;
        }
    }
};

/// What DllGetClassObject does for one class. A DLL with several classes writes TX_SUBSYSTEM_EXPORTS and its
/// own DllGetClassObject that calls this for one class after the other while it gets
/// CLASS_E_CLASSNOTAVAILABLE.
/// @param own   the CLSID of Service.
/// @param clsid the CLSID asked for.
template <typename Service>
[[nodiscard]] HRESULT GetClassObject(REFCLSID own, REFCLSID clsid, REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    *object = nullptr;
    if (!(clsid == own))
    {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    auto* const classObject = new (std::nothrow) CClassObject<Service>;
    if (classObject == nullptr)
    {
        return E_OUTOFMEMORY;
    }
    const HRESULT result = classObject->QueryInterface(iid, object);
    classObject->Release();
    return result;
}

/// What DllCanUnloadNow returns: S_OK when nobody holds an object of this DLL.
[[nodiscard]] inline HRESULT CanUnloadNow() noexcept
{
    return Detail::g_objectCount == 0 ? S_OK : S_FALSE;
}

} // namespace TxSdk

/// Makes the linker export DllGetClassObject and DllCanUnloadNow without a .def file. The system's headers
/// declare both without dllexport: Visual C++ refuses to add it, clang warns.
#if defined(_MSC_VER)
#define TX_SUBSYSTEM_EXPORTS                                                                                 \
    __pragma(comment(linker, "/EXPORT:DllGetClassObject,PRIVATE"))                                           \
        __pragma(comment(linker, "/EXPORT:DllCanUnloadNow,PRIVATE"))
#else
#define TX_SUBSYSTEM_EXPORT_DECLARATIONS                                                                     \
    extern "C" __declspec(dllexport) HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID, REFIID, void**);     \
    extern "C" __declspec(dllexport) HRESULT STDAPICALLTYPE DllCanUnloadNow();
#if defined(__clang__)
// clang-format off
#define TX_SUBSYSTEM_EXPORTS                                                                                 \
    _Pragma("clang diagnostic push")                                                                         \
    _Pragma("clang diagnostic ignored \"-Wdll-attribute-on-redeclaration\"")                                 \
    TX_SUBSYSTEM_EXPORT_DECLARATIONS                                                                         \
    _Pragma("clang diagnostic pop")
// clang-format on
#else
#define TX_SUBSYSTEM_EXPORTS TX_SUBSYSTEM_EXPORT_DECLARATIONS
#endif
#endif

/// Makes a DLL of one service class: defines what the host looks for. Write it once, in one source file,
/// outside of any namespace.
/// @param Service a class derived from TxSdk::CSubsystem that can be constructed without arguments.
/// @param ...     the CLSID, as the initialiser of a GUID: {0x..., 0x..., 0x..., {0x..., ...}}.
#define TX_SUBSYSTEM_MODULE(Service, ...)                                                                    \
    static_assert(std::is_base_of_v<::TxSdk::CSubsystem, Service>, "derive it from TxSdk::CSubsystem");      \
    TX_SUBSYSTEM_EXPORTS                                                                                     \
    STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)                                      \
    {                                                                                                        \
        static constexpr CLSID kServiceClsid = __VA_ARGS__;                                                  \
        return ::TxSdk::GetClassObject<Service>(kServiceClsid, clsid, iid, object);                          \
    }                                                                                                        \
    STDAPI DllCanUnloadNow()                                                                                 \
    {                                                                                                        \
        return ::TxSdk::CanUnloadNow();                                                                      \
    }
