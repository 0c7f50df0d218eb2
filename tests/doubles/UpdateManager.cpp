/// @file
/// An update manager in one DLL: the agent and, where a test puts it in the local server's place, the client.
/// Modes: "old" (class object by its older interface only), "installing" (the client says yes), "fail"
/// (methods fail), "throw" (they throw), "refuse" (no object is created), "null" (success, but no object).

#include "control/UpdateManager.h"

#include <windows.h>

#include "base/ClassObject.h"
#include "doubles/Record.h"

namespace
{

HRESULT Perform(const std::wstring& call)
{
    Record(call);
    if (IsMode(L"throw"))
    {
        throw 5;
    }
    return IsMode(L"fail") ? E_ABORT : S_OK;
}

/// Static objects: counting the references in the record is enough.
template <typename Interface>
class CStatic : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        Record(L"release");
        return 1;
    }
};

class CClient final : public CStatic<ITxUpdateClientRot>
{
public:
    HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) override
    {
        *installing = IsMode(L"installing") ? 7 : 0;
        return Perform(L"ask");
    }
};

class CAgent final : public CStatic<ITxUpdateAgent>
{
public:
    HRESULT STDMETHODCALLTYPE Unused1() override { return Perform(L"1"); }
    HRESULT STDMETHODCALLTYPE Unused2() override { return Perform(L"2"); }
    HRESULT STDMETHODCALLTYPE Unused3() override { return Perform(L"3"); }
    HRESULT STDMETHODCALLTYPE Unused4() override { return Perform(L"4"); }
    HRESULT STDMETHODCALLTYPE Unused5() override { return Perform(L"5"); }
    HRESULT STDMETHODCALLTYPE Cancel(BSTR instance) override
    {
        return Perform(std::wstring(L"cancel ") + instance);
    }
};

class CClassObject final : public CStatic<ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        static CClient s_client;
        static CAgent s_agent;
        Record(L"create");
        if (IsMode(L"refuse"))
        {
            *object = this; // What a failure leaves there must not be used.
            return CLASS_E_NOAGGREGATION;
        }
        *object = riid == IID_ITxUpdateClientRot ? static_cast<void*>(&s_client) : &s_agent;
        if (IsMode(L"null"))
        {
            *object = nullptr;
        }
        return S_OK;
    }
};

} // namespace

extern "C" __declspec(dllexport) HRESULT WINAPI DllGetClassObject(REFCLSID, REFIID riid, void** object)
{
    static CClassObject s_classObject;
    if (riid != (IsMode(L"old") ? Basalt::IID_ITxSvcClassObjectOld : IID_ITxSvcClassObject))
    {
        return E_NOINTERFACE;
    }
    *object = &s_classObject;
    return S_OK;
}
