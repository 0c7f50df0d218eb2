/// @file
/// Stands in for the first-run service's configuration object: says the state that the value "OobeState"
/// below HKLM\SOFTWARE\TxTest holds; while there is none, that it cannot be read.
#include <windows.h>

#include "TxSvcSubsystem.h"
#include "base/RegKey.h"
#include "proxy/FirstRunGate.h"

namespace
{

class COobe final : public IOobeConfiguration
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetServiceEnabledState(USHORT* state, DWORD* error) override
    {
        Basalt::CRegKey key;
        DWORD value = 0;
        *error = key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest", KEY_READ);
        if (*error == ERROR_SUCCESS)
        {
            *error = key.ReadDword(L"OobeState", value);
        }
        *state = static_cast<USHORT>(value);
        return *error == ERROR_SUCCESS ? S_OK : E_FAIL;
    }
};
COobe g_oobe;

class CClassObject final : public ITxSvcClassObject
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        *object = riid == IID_IOobeConfiguration ? &g_oobe : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
};
CClassObject g_classObject;

} // namespace

extern "C" __declspec(dllexport) HRESULT STDAPICALLTYPE
DllGetClassObject(REFCLSID clsid, REFIID riid, void** object)
{
    *object = clsid == CLSID_OobeConfiguration && riid == IID_ITxSvcClassObject ? &g_classObject : nullptr;
    return *object != nullptr ? S_OK : CLASS_E_CLASSNOTAVAILABLE;
}
