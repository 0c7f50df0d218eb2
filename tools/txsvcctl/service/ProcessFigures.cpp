#include "txsvcctl/service/ProcessFigures.h"

#include <psapi.h>
#include <tlhelp32.h>

#include "base/Owned.h"

namespace TxCtl
{

namespace
{

double Seconds(const FILETIME& time) noexcept
{
    constexpr double kUnits = 1e7;
    return static_cast<double>(ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime) / kUnits;
}

DWORD CountThreads(DWORD processId) noexcept
{
    const Basalt::CFile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    DWORD count = 0;
    for (BOOL isThere = ::Thread32First(snapshot.Get(), &entry); isThere;
         isThere = ::Thread32Next(snapshot.Get(), &entry))
    {
        count += entry.th32OwnerProcessID == processId ? 1 : 0;
    }
    return count;
}

} // namespace

std::optional<ProcessFigures> FiguresOf(DWORD processId)
{
    const Basalt::CHandle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    PROCESS_MEMORY_COUNTERS memory{};
    FILETIME created{};
    FILETIME ended{};
    FILETIME kernel{};
    FILETIME user{};
    if (!process || !::K32GetProcessMemoryInfo(process.Get(), &memory, sizeof(memory)) ||
        !::GetProcessTimes(process.Get(), &created, &ended, &kernel, &user))
    {
        return std::nullopt;
    }
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    ProcessFigures figures{
        memory.PagefileUsage, // What it has committed for itself.
        memory.WorkingSetSize,
        CountThreads(processId),
        0,
        Seconds(kernel) + Seconds(user),
        Seconds(now) - Seconds(created),
        created};
    ::GetProcessHandleCount(process.Get(), &figures.handles);
    return figures;
}

} // namespace TxCtl
