#include "control/TxSvcSubsystemControlManager.h"

#include "config/TxSvcHostConfig.h"
#include "control/GroupServices.h"
#include "control/ProcessEnd.h"
#include "eventlog/EventLog.h"

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
    const CForeignCall call;
    if (!call)
    {
        return E_FAIL; // As for every stop: the process ends.
    }
    const HRESULT result = StopServices(false);
    if (FAILED(result))
    {
        BeginForcedStop(kFunction);
        EventLog::GroupStoppedForUpdate(CTxSvcHostConfig::GetInstance().GroupName());
    }
    return result;
}
