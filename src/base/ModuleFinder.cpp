#include "base/ModuleFinder.h"

#include <psapi.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <vector>

#include "base/Owned.h"
#include "base/TrustedModule.h"

namespace Basalt
{

namespace
{

constexpr DWORD kModuleBufferBytes = 32768;
constexpr std::size_t kModuleCapacity = kModuleBufferBytes / sizeof(HMODULE);

bool Holds(HANDLE process, HMODULE module, const void* address) noexcept
{
    MODULEINFO info{};
    if (!::GetModuleInformation(process, module, &info, sizeof(info)))
    {
        return false; // Unloaded since it was listed.
    }
    const auto base = reinterpret_cast<std::uintptr_t>(info.lpBaseOfDll);
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    return at >= base && at - base < info.SizeOfImage;
}

} // namespace

DWORD FindModuleOfAddress(const void* address, std::wstring& path) noexcept
try
{
    path.clear();
    const CHandle process(
        ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, ::GetCurrentProcessId()));
    if (!process)
    {
        return ::GetLastError();
    }
    std::vector<HMODULE> modules(kModuleCapacity);
    DWORD neededBytes = 0;
    if (!::EnumProcessModules(process.Get(), modules.data(), kModuleBufferBytes, &neededBytes))
    {
        return ::GetLastError();
    }
    modules.resize(std::min<std::size_t>(neededBytes / sizeof(HMODULE), kModuleCapacity));

    const auto found = std::find_if(modules.begin(), modules.end(), [&process, address](HMODULE module) {
        return Holds(process.Get(), module, address);
    });
    if (found == modules.end())
    {
        return ERROR_ACCESS_DENIED;
    }
    wchar_t name[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameExW(process.Get(), *found, name, MAX_PATH);
    if (length < MAX_PATH) // Else it is cut off and would name another file than the module's.
    {
        path.assign(name, length);
    }
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CheckTrustedCode(const void* address) noexcept
{
    std::wstring path;
    const DWORD status = FindModuleOfAddress(address, path);
    return status == ERROR_SUCCESS ? CheckTrustedModule(path) : status;
}

} // namespace Basalt
