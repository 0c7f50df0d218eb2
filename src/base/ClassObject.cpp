#include "base/ClassObject.h"

#include <windows.h>
#include <objbase.h>

#include <cstdint>

namespace Basalt
{

namespace
{

constexpr std::size_t kReleaseSlot = 2;
constexpr std::size_t kCreateObjectSlot = 3;

/// Reads a pointer where there may be no memory: a fault becomes false, with every compiler.
bool ReadPointer(const void* from, const void*& value) noexcept
{
    SIZE_T read = 0;
    return ::ReadProcessMemory(
               ::GetCurrentProcess(), from, static_cast<void*>(&value), sizeof(value), &read) &&
           read == sizeof(value);
}

bool IsExecutable(const void* address) noexcept
{
    constexpr DWORD kExecute =
        PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    MEMORY_BASIC_INFORMATION region{};
    return ::VirtualQuery(address, &region, sizeof(region)) != 0 && region.State == MEM_COMMIT &&
           (region.Protect & kExecute) != 0 && (region.Protect & PAGE_GUARD) == 0;
}

} // namespace

const void* MethodOf(const void* object, std::size_t slot) noexcept
{
    const void* table = nullptr;
    const void* method = nullptr;
    if (object == nullptr || !ReadPointer(object, table))
    {
        return nullptr;
    }
    // Counted as a number: pointer arithmetic is undefined for null and whatever else may stand there.
    const auto at = reinterpret_cast<std::uintptr_t>(table) + slot * sizeof(void*);
    if (!ReadPointer(reinterpret_cast<const void*>(at), method) || !IsExecutable(method))
    {
        return nullptr;
    }
    return method;
}

void ReleaseForeign(IUnknown* object) noexcept
{
    // Whoever failed has logged it already; what is left here is to survive the clean-up.
    static_cast<void>(CallForeign(object, kReleaseSlot, [object] {
        object->Release();
        return S_OK;
    }));
}

HRESULT GetClassObject(
    REFCLSID clsid, DWORD context, CForeignReference<ITxSvcClassObject>& classObject) noexcept
{
    HRESULT result = E_FAIL;
    for (const IID& iid : {IID_ITxSvcClassObject, IID_ITxSvcClassObjectOld})
    {
        void* found = nullptr;
        // Loads an in-process server and runs its DllGetClassObject.
        result = GuardedResult([&] { return ::CoGetClassObject(clsid, context, nullptr, iid, &found); });
        if (result == kCallFailed)
        {
            return result; // It may have left anything behind: no second attempt.
        }
        if (SUCCEEDED(result))
        {
            classObject.Reset(static_cast<ITxSvcClassObject*>(found));
            return classObject ? S_OK : E_NOINTERFACE;
        }
    }
    return result;
}

HRESULT CreateWith(ITxSvcClassObject* classObject, REFIID iid, void** object) noexcept
{
    *object = nullptr;
    const HRESULT result =
        CallForeign(classObject, kCreateObjectSlot, [&] { return classObject->CreateObject(iid, object); });
    if (FAILED(result))
    {
        *object = nullptr; // Whatever it left there does not belong to us.
        return result;
    }
    return *object == nullptr ? kCallFailed : result;
}

HRESULT CreateForeignObject(REFCLSID clsid, DWORD context, REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    *object = nullptr;
    CForeignReference<ITxSvcClassObject> classObject;
    const HRESULT result = GetClassObject(clsid, context, classObject);
    return FAILED(result) ? result : CreateWith(classObject.Get(), iid, object);
}

} // namespace Basalt
