#pragma once

#include <windows.h>

#include <cstddef>

#include "TxSvcSubsystem.h"
#include "base/CallGuard.h"
#include "base/Owned.h"

/// @file
/// Objects of other people's modules, made through the product's own class-object interface.
///
/// Nothing here trusts such an object further than its pointer: a method is called only when its table and
/// its code can be read and run, and under the call guard. A dead or damaged object yields a status.
/// Threads: any that has initialised COM.

namespace Basalt
{

/// The older name of ITxSvcClassObject, with the same methods: {6058502E-6069-43F4-B733-128649A20BD5}
inline constexpr IID IID_ITxSvcClassObjectOld = {
    0x6058502E, 0x6069, 0x43F4, {0xB7, 0x33, 0x12, 0x86, 0x49, 0xA2, 0x0B, 0xD5}};

/// The code address of a COM object's method, read without touching the object's memory directly.
/// @param slot number of the method in the object's table, 0 for QueryInterface.
/// @return null when the table cannot be read or the address is not in executable memory.
[[nodiscard]] const void* MethodOf(const void* object, std::size_t slot) noexcept;

/// Runs a lambda that calls the method of that slot and returns its HRESULT.
/// @return kCallFailed when there is no such method or it threw.
template <typename Call>
[[nodiscard]] HRESULT CallForeign(const void* object, std::size_t slot, Call&& call) noexcept
{
    return MethodOf(object, slot) == nullptr ? kCallFailed : GuardedResult(call);
}

void ReleaseForeign(IUnknown* object) noexcept;

/// One reference to an object of somebody else's code.
template <typename Interface>
struct ForeignTraits
{
    using Type = Interface*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ReleaseForeign(value); }
};
template <typename Interface>
using CForeignReference = COwned<ForeignTraits<Interface>>;

/// Gets a class object by its interface's present name, else by the older one.
/// @param context a CLSCTX value.
/// @return S_OK with @p classObject set, or the second attempt's failure.
/// @see https://learn.microsoft.com/windows/win32/api/combaseapi/nf-combaseapi-cogetclassobject
[[nodiscard]] HRESULT GetClassObject(
    REFCLSID clsid, DWORD context, CForeignReference<ITxSvcClassObject>& classObject) noexcept;

/// Lets a class object create.
/// @param object set to null first; receives the interface with one reference.
/// @return the class object's result; kCallFailed when it failed badly or gave success and no object.
[[nodiscard]] HRESULT CreateWith(ITxSvcClassObject* classObject, REFIID iid, void** object) noexcept;

/// Both steps, for an object whose origin need not be trusted.
/// @return E_POINTER for a null out-pointer, else GetClassObject's or CreateWith's result.
[[nodiscard]] HRESULT CreateForeignObject(REFCLSID clsid, DWORD context, REFIID iid, void** object) noexcept;

} // namespace Basalt
