#include "support/ImportPatch.h"

#include <cstring>
#include <functional>

namespace
{

void Write(void** slot, void* value) noexcept
{
    DWORD protection = 0;
    ::VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection); // The table is read-only after load.
    *slot = value;
    ::VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

/// Calls @p visit with every slot through which this executable calls the function, whatever DLL it names:
/// a mingw import library may name another one than the documentation does.
void ForEachSlot(const char* functionName, const std::function<void(void**)>& visit)
{
    auto* const base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (const auto* import =
             reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
         import->Name != 0;
         ++import)
    {
        const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + import->OriginalFirstThunk);
        auto* slot = reinterpret_cast<void**>(base + import->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++slot)
        {
            if (IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal))
            {
                continue;
            }
            const auto* entry = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(entry->Name), functionName) == 0)
            {
                visit(slot);
            }
        }
    }
}

} // namespace

void CImportPatch::Patch(const char* functionName, void* replacement) noexcept
{
    ForEachSlot(functionName, [this, replacement](void** slot) {
        m_slots.push_back({slot, *slot});
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
