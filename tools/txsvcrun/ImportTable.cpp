#include "txsvcrun/ImportTable.h"

#include <cstddef>
#include <cstring>

namespace TxRun
{

namespace
{

// Linkers give the tables any alignment, so no entry is touched through its own type.
template <typename T>
T Read(const BYTE* entry) noexcept
{
    T value{};
    std::memcpy(&value, entry, sizeof(value));
    return value;
}

BYTE* BaseOf(HMODULE module) noexcept
{
    return reinterpret_cast<BYTE*>(module);
}

/// Calls an action with each import descriptor.
template <typename Action>
void ForEachDescriptor(HMODULE module, Action&& action)
{
    const BYTE* const base = BaseOf(module);
    const auto headers = Read<IMAGE_NT_HEADERS64>(base + Read<IMAGE_DOS_HEADER>(base).e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.VirtualAddress == 0)
    {
        return;
    }
    const BYTE* at = base + directory.VirtualAddress;
    for (auto descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(at); descriptor.Name != 0;
         descriptor = Read<IMAGE_IMPORT_DESCRIPTOR>(at += sizeof(descriptor)))
    {
        action(descriptor);
    }
}

void Write(void* slot, void* value) noexcept
{
    DWORD protection = 0;
    if (::VirtualProtect(slot, sizeof(value), PAGE_READWRITE, &protection)) // Read-only once it is loaded.
    {
        std::memcpy(slot, &value, sizeof(value));
        ::VirtualProtect(slot, sizeof(value), protection, &protection);
    }
}

} // namespace

void ReplaceImport(HMODULE module, const char* function, void* replacement) noexcept
{
    BYTE* const base = BaseOf(module);
    ForEachDescriptor(module, [=](const IMAGE_IMPORT_DESCRIPTOR& descriptor) {
        BYTE* slot = base + descriptor.FirstThunk;
        const BYTE* entry = base + descriptor.OriginalFirstThunk;
        for (auto thunk = Read<ULONGLONG>(entry); thunk != 0; thunk = Read<ULONGLONG>(entry += sizeof(thunk)))
        {
            const auto* const name =
                reinterpret_cast<const char*>(base + thunk + offsetof(IMAGE_IMPORT_BY_NAME, Name));
            if (!IMAGE_SNAP_BY_ORDINAL64(thunk) && std::strcmp(name, function) == 0)
            {
                Write(slot, replacement);
            }
            slot += sizeof(void*);
        }
    });
}

std::vector<std::string> ImportedDlls(HMODULE module)
{
    std::vector<std::string> names;
    ForEachDescriptor(module, [&](const IMAGE_IMPORT_DESCRIPTOR& descriptor) {
        names.emplace_back(reinterpret_cast<const char*>(BaseOf(module) + descriptor.Name));
    });
    return names;
}

} // namespace TxRun
