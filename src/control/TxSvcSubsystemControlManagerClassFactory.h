#pragma once

#include <windows.h>
#include <objbase.h>

#include "TxSvcSubsystem.h"

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
