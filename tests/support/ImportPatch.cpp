#include "support/ImportPatch.h"

#include <cstddef>
#include <cstring>

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

} // namespace

/// Every slot through which this executable calls the function is patched, whatever DLL it names: a mingw
/// import library may name another one than the documentation does.
void CImportPatch::Patch(const char* functionName, void* replacement) noexcept
{
    auto* const base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    const auto headers = Read<IMAGE_NT_HEADERS64>(base + Read<IMAGE_DOS_HEADER>(base).e_lfanew);
    const BYTE* import =
        base + headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(import); descriptor.Name != 0;
         descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(import += sizeof(descriptor)))
    {
        const BYTE* entry = base + descriptor.OriginalFirstThunk;
        BYTE* slot = base + descriptor.FirstThunk;
        for (auto thunk = Read<ULONGLONG>(entry); thunk != 0; thunk = Read<ULONGLONG>(entry += sizeof(thunk)))
        {
            const BYTE* const name = base + thunk + offsetof(IMAGE_IMPORT_BY_NAME, Name);
            if (!IMAGE_SNAP_BY_ORDINAL64(thunk) &&
                std::strcmp(reinterpret_cast<const char*>(name), functionName) == 0)
            {
                m_slots.push_back({slot, Read<void*>(slot)});
                Write(slot, replacement);
            }
            slot += sizeof(void*);
        }
    }
}

CImportPatch::~CImportPatch()
{
    for (const Slot& slot : m_slots)
    {
        Write(slot.address, slot.original);
    }
}
