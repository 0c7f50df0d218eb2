/// @file
/// An update agent. Modes: "old" (class object by its older interface only), "fail", "nothing" (methods give
/// S_FALSE), "throw", "refuse" (no object is created), "null" (success, but no object).

#include "control/UpdateManager.h"

#include <windows.h>

#include "base/ClassObject.h"
#include "doubles/Record.h"

namespace
{

/// A class object and its only object. Static: counting the references in the record is enough.
class CAgent final : public ITxSvcClassObject, public ITxUpdateAgent
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        Record(L"release");
        return 1;
    }
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID iid, void** object) override;
    HRESULT STDMETHODCALLTYPE Unused1() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Unused2() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Unused3() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Unused4() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Unused5() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Cancel(BSTR instance) override
    {
        Record(std::wstring(L"cancel ") + instance);
        if (IsMode(L"throw"))
        {
            throw 5;
        }
        return IsMode(L"fail") ? E_ABORT : IsMode(L"nothing") ? S_FALSE : S_OK;
    }
} g_agent;

HRESULT CAgent::CreateObject(REFIID iid, void** object)
{
    Record(L"create");
    *object = iid != IID_ITxUpdateAgent || IsMode(L"null") ? nullptr : static_cast<ITxUpdateAgent*>(&g_agent);
    return IsMode(L"refuse") ? CLASS_E_NOAGGREGATION : S_OK; // What a failure leaves there must not be used.
}

} // namespace

extern "C" __declspec(dllexport) HRESULT WINAPI DllGetClassObject(REFCLSID, REFIID iid, void** object)
{
    *object = static_cast<ITxSvcClassObject*>(&g_agent);
    return iid == (IsMode(L"old") ? Basalt::IID_ITxSvcClassObjectOld : IID_ITxSvcClassObject) ? S_OK
                                                                                              : E_NOINTERFACE;
}
