#include "proxy/SubsystemHolder.h"

#include <utility>

#include "base/CallGuard.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"SubsystemHolder";

} // namespace

void CSubsystemHolder::SetModule(HMODULE module) noexcept
{
    if (m_module != module)
    {
        UnloadModule();
        m_module = module;
    }
}

DWORD CSubsystemHolder::ReleaseInterface() noexcept
{
    DWORD exceptionCode = 0;
    ITxSvcSubsystem* const subsystem = std::exchange(m_interface, nullptr);
    if (subsystem != nullptr && !Basalt::CallGuarded([subsystem] { subsystem->Release(); }, &exceptionCode))
    {
        TX_LOG(
            LogError,
            L"CSubsystemHolder::ReleaseInterface",
            L"Exception found & suppressed in service, returning 0x%08X",
            ERROR_INVALID_OPERATION);
    }
    return exceptionCode;
}

void CSubsystemHolder::UnloadModule() noexcept
{
    if (m_module != nullptr)
    {
        ::FreeLibrary(std::exchange(m_module, nullptr));
    }
}
