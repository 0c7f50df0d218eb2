#pragma once

#include <windows.h>
#include <objbase.h>

#include <atomic>

#include "TxSvcGroupControl.h"

/// What the product's updater talks to from another process in order to replace files that hosted services
/// hold open: stops the services of the group, whereupon the host process ends.
///
/// The process lives on for about a second after that, so objects of this class are never deleted once they
/// were given out: a client's last Release frees nothing. Threads: any; TxStopSvcSubsystem runs on one of
/// COM's RPC threads.
class CTxSvcSubsystemControlManager final : public ITxSvcSubsystemControlManager
{
public:
    CTxSvcSubsystemControlManager() noexcept = default;
    CTxSvcSubsystemControlManager(const CTxSvcSubsystemControlManager&) = delete;
    CTxSvcSubsystemControlManager& operator=(const CTxSvcSubsystemControlManager&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;
    HRESULT STDMETHODCALLTYPE Reserved() noexcept override;
    HRESULT STDMETHODCALLTYPE TxStopSvcSubsystem(DWORD reserved, DWORD* processId) noexcept override;

    virtual ~CTxSvcSubsystemControlManager() = default;

    /// Stops the services of the group that this process runs, and keeps those from running that are started
    /// afterwards (IsReduceRestartStopping).
    ///
    /// @param releaseConfig destroys the configuration's instance at the end, whatever the outcome.
    /// @return S_OK for a group without services. Otherwise a failure, on purpose also when every service has
    ///         stopped: a stop for an update always ends the process.
    [[nodiscard]] static HRESULT StopServices(bool releaseConfig) noexcept;

    /// Stops one service and waits up to ten seconds for its end. One that does not exist or does not run
    /// counts as stopped.
    [[nodiscard]] static HRESULT StopService(const wchar_t* serviceName) noexcept;

    /// Starts the services of the core group without waiting for them.
    ///
    /// @param releaseConfig destroys the configuration's instance at the end, whatever the outcome.
    /// @return S_OK for a group without services. Otherwise a failure, on purpose also when every service was
    ///         started: it does not say that none was.
    static HRESULT StartServices(bool releaseConfig) noexcept;

    /// For the main thread on its way out, when all services of this process have stopped: a stop may still
    /// be under way, with services in other processes or with its answer. Waits until the running calls of
    /// TxStopSvcSubsystem and CreateObject have returned; later ones, and those that come meanwhile, fail at
    /// once.
    static void CloseCalls() noexcept;

    /// After CloseCalls, before COM ends: gives the answer of a stop a second to reach the updater.
    static void LetAnswerLeave() noexcept;

    /// Thread routine: gives the answer of TxStopSvcSubsystem time to reach the updater, then ends the
    /// process with exit code 0. When the main thread has begun to end it (CloseCalls), only after a further
    /// time. Does not return.
    static DWORD WINAPI MyTerminateThread(void* context) noexcept;

private:
    std::atomic<ULONG> m_references = 0;
};

/// The creation interface as the host's own class object has it. The second method is not for callers
/// outside: proxies do not know it.
struct ITxSvcGuardedClassObject : ITxSvcClassObject
{
    /// CreateObject without the check of the caller.
    virtual HRESULT STDMETHODCALLTYPE CreateObjectUnguarded(REFIID iid, void** object) noexcept = 0;

    virtual ~ITxSvcGuardedClassObject() = default;
};

/// One of the class object's two creation interfaces, told apart by the number.
template <int Number>
class CGuardedClassObject : public ITxSvcGuardedClassObject
{
public:
    /// Creates the object for callers alone whose code is in a trusted module; a client in another process
    /// calls through the stub in TxSvHostPS.dll.
    /// @return E_ACCESSDENIED for other callers, who get no object and leave no trace in the log;
    ///         CO_E_SERVER_STOPPING when the process is about to end.
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID iid, void** object) noexcept final;
};

/// The class object of CTxSvcSubsystemControlManager.
///
/// Not counted and not freed by its references: it must outlive its registration, which ends with it, and
/// every call that is on its way into it by then.
/// Threads: RegisterClassObject and Revoke on the main thread; the rest on any.
class CoTxSvcSubsystemControlManagerClassFactory final : public CGuardedClassObject<1>,
                                                         public CGuardedClassObject<2>
{
public:
    CoTxSvcSubsystemControlManagerClassFactory() noexcept = default;
    CoTxSvcSubsystemControlManagerClassFactory(const CoTxSvcSubsystemControlManagerClassFactory&) = delete;
    CoTxSvcSubsystemControlManagerClassFactory& operator=(const CoTxSvcSubsystemControlManagerClassFactory&) =
        delete;
    ~CoTxSvcSubsystemControlManagerClassFactory() override { Revoke(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;
    HRESULT STDMETHODCALLTYPE CreateObjectUnguarded(REFIID iid, void** object) noexcept override;

    /// Makes the class object known to other processes. COM must be initialised.
    HRESULT RegisterClassObject() noexcept;
    HRESULT Revoke() noexcept;

private:
    DWORD m_cookie = 0; ///< 0 while not registered.
};
