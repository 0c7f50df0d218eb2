#include "control/CodeTrust.h"

#include <windows.h>

#include <string>

#include "base/ModuleFinder.h"
#include "eventlog/EventLog.h"

bool IsTrustedCode(const void* address, std::atomic<bool>* isSaid) noexcept
{
    const DWORD verdict = Basalt::CheckTrustedCode(address);
    if (verdict != ERROR_SUCCESS && (isSaid == nullptr || !isSaid->exchange(true)))
    {
        std::wstring path;
        static_cast<void>(Basalt::FindModuleOfAddress(address, path));
        EventLog::NotTrusted(path.c_str(), verdict);
    }
    return verdict == ERROR_SUCCESS;
}
