#include "HandleCount.h"

#include <windows.h>
#include <tlhelp32.h>

#include <algorithm>
#include <vector>

#include "base/Owned.h"
#include "base/SystemLibrary.h"

namespace
{

constexpr ULONG kSystemExtendedHandleInformation = 64;
constexpr LONG kStatusInfoLengthMismatch = static_cast<LONG>(0xC0000004);

struct HandleEntry
{
    void* object;
    ULONG_PTR processId;
    ULONG_PTR handle;
    ULONG access;
    USHORT creatorBackTraceIndex;
    USHORT objectTypeIndex;
    ULONG attributes;
    ULONG reserved;
};
struct HandleTable
{
    ULONG_PTR count;
    ULONG_PTR reserved;
    HandleEntry entries[1];
};

using NtQuerySystemInformationFunction =
    LONG NTAPI(ULONG infoClass, void* buffer, ULONG size, ULONG* returned);

} // namespace

std::size_t CountHandles(DWORD processId)
{
    static auto* const query = Basalt::FindExport<NtQuerySystemInformationFunction>(
        ::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation");
    std::vector<BYTE> buffer(1U << 16);
    while (
        query(kSystemExtendedHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()), nullptr) ==
        kStatusInfoLengthMismatch)
    {
        buffer.resize(buffer.size() * 2);
    }
    const auto& table = *reinterpret_cast<const HandleTable*>(buffer.data());
    const HandleEntry* entries = table.entries;
    return static_cast<std::size_t>(
        std::count_if(entries, entries + table.count, [processId](const HandleEntry& entry) {
            return entry.processId == processId;
        }));
}

std::size_t CountOwnHandles()
{
    return CountHandles(::GetCurrentProcessId());
}

std::size_t CountOwnThreads()
{
    const Basalt::CFile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    std::size_t count = 0;
    for (BOOL is = ::Thread32First(snapshot.Get(), &entry); is; is = ::Thread32Next(snapshot.Get(), &entry))
    {
        count += entry.th32OwnerProcessID == ::GetCurrentProcessId() ? 1 : 0;
    }
    return count;
}
