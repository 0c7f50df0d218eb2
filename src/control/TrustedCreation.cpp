#include "control/TrustedCreation.h"

#include <windows.h>
#include <objbase.h>

#include "base/ClassObject.h"
#include "control/CodeTrust.h"

HRESULT CreateTrustedObject(
    REFCLSID clsid, DWORD context, REFIID iid, void** object, CreationTrust trust) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    *object = nullptr;
    if (trust == CreationTrust::NotAsked)
    {
        return ::CoCreateInstance(clsid, nullptr, context, iid, object);
    }
    Basalt::CForeignReference<ITxSvcClassObject> classObject;
    const HRESULT result = Basalt::GetClassObject(clsid, context, classObject);
    if (FAILED(result))
    {
        return result;
    }
    const void* const firstMethod = Basalt::MethodOf(classObject.Get(), 0);
    if (firstMethod == nullptr || !IsTrustedCode(firstMethod))
    {
        return E_ACCESSDENIED;
    }
    return Basalt::CreateWith(classObject.Get(), iid, object);
}
