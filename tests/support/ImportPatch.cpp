#include "support/ImportPatch.h"

#include <cstddef>
#include <cstring>
#include <functional>

namespace
{

// lld gives the import tables an alignment of four bytes, so no entry may be touched through its own type.

template <typename T>
T Read(const void* entry) noexcept
{
    T value{};
    std::memcpy(&value, entry, sizeof(value));
    return value;
}

void Write(void* slot, void* value) noexcept
{
    DWORD protection = 0;
    ::VirtualProtect(slot, sizeof(value), PAGE_READWRITE, &protection); // The table is read-only after load.
    std::memcpy(slot, &value, sizeof(value));
    ::VirtualProtect(slot, sizeof(value), protection, &protection);
}

bool NameIs(const BYTE* entry, const char* functionName) noexcept
{
    return std::strcmp(
               reinterpret_cast<const char*>(entry + offsetof(IMAGE_IMPORT_BY_NAME, Name)), functionName) ==
           0;
}

/// Calls @p visit with every slot through which this executable calls the function, whatever DLL it names:
/// a mingw import library may name another one than the documentation does.
void ForEachSlot(const char* functionName, const std::function<void(void*)>& visit)
{
    auto* const base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    const auto dos = Read<IMAGE_DOS_HEADER>(base);
    const auto headers = Read<IMAGE_NT_HEADERS64>(base + dos.e_lfanew);
    const BYTE* import =
        base + headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(import); descriptor.Name != 0;
         descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(import += sizeof(descriptor)))
    {
        const BYTE* name = base + descriptor.OriginalFirstThunk;
        BYTE* slot = base + descriptor.FirstThunk;
        for (auto thunk = Read<ULONGLONG>(name); thunk != 0; thunk = Read<ULONGLONG>(name += sizeof(thunk)))
        {
            if (!IMAGE_SNAP_BY_ORDINAL64(thunk) && NameIs(base + thunk, functionName))
            {
                visit(slot);
            }
            slot += sizeof(void*);
        }
    }
}

} // namespace

void CImportPatch::Patch(const char* functionName, void* replacement) noexcept
{
    ForEachSlot(functionName, [this, replacement](void* slot) {
        m_slots.push_back({slot, Read<void*>(slot)});
        Write(slot, replacement);
    });
}

CImportPatch::~CImportPatch()
{
    for (const Slot& slot : m_slots)
    {
        Write(slot.address, slot.original);
    }
}
