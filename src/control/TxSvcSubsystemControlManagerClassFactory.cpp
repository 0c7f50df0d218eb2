#include "control/TxSvcSubsystemControlManagerClassFactory.h"

#include <atomic>
#include <new>

#include "base/ReturnAddress.h"
#include "control/CodeTrust.h"
#include "control/ProcessEnd.h"
#include "control/TxSvcSubsystemControlManager.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcSubsystemControlManager";

/// Whether a refused caller has gone to the event log: anybody may call again and again.
std::atomic<bool> g_isRefusalSaid = false;

} // namespace

template <int Number>
__declspec(noinline) HRESULT STDMETHODCALLTYPE
CGuardedClassObject<Number>::CreateObject(REFIID iid, void** object) noexcept
{
    const CForeignCall call; // Before the caller is checked: the end of the process waits for that, too.
    if (!call)
    {
        if (object != nullptr)
        {
            *object = nullptr;
        }
        return CO_E_SERVER_STOPPING;
    }
    if (!IsTrustedCode(TX_RETURN_ADDRESS(), &g_isRefusalSaid))
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
