#include "proxy/FirstRunGate.h"

#include <algorithm>
#include <cwchar>

#include "base/ClassObject.h"
#include "base/Text.h"
#include "config/TxSvcHostConfig.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"FirstRunGate";

/// The first-run service itself always runs: it is the one that enables the others.
constexpr wchar_t kOobeService[] = L"TxOobeSv2";
constexpr USHORT kAllServicesEnabled = 65535;
constexpr std::size_t kGetServiceEnabledStateSlot = 3;

} // namespace

bool CFirstRunGate::shouldExecuteService(const std::wstring& name)
{
    if (::_wcsicmp(name.c_str(), kOobeService) == 0 || areServicesEnabledByOobe())
    {
        return true;
    }
    const auto& exclusions = CTxSvcHostConfig::GetInstance().GetOobeExclusionList();
    if (std::find(exclusions.begin(), exclusions.end(), Basalt::LowerCased(name)) != exclusions.end())
    {
        TX_LOG(
            LogWarning,
            L"CFirstRunGate::shouldExecuteService",
            L"The service is in OOBE exclusion list '%s'",
            name);
        return true;
    }
    return false;
}

bool CFirstRunGate::areServicesEnabledByOobe() noexcept
{
    constexpr wchar_t kFunction[] = L"CFirstRunGate::areServicesEnabledByOobe";
    if (!m_bOobeCheck)
    {
        return true;
    }
    CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    DWORD required = TRUE; // A value that cannot be read does not switch the check off.
    static_cast<void>(config.GetIsOobeCheckRequired(required));
    if (required == 0)
    {
        TX_LOG(LogNormal, kFunction, L"Oobe completed, disabling OOBE check");
        m_bOobeCheck = false;
        return true;
    }

    void* object = nullptr;
    const HRESULT created = Basalt::CreateForeignObject(
        CLSID_OobeConfiguration, CLSCTX_INPROC_SERVER, IID_IOobeConfiguration, &object);
    if (FAILED(created))
    {
        // Level 1 on purpose: a product without first-run setup has no such object.
        TX_LOG(LogNormal, kFunction, L"Failed to get OOBE config object (0x%08X)", created);
        return true;
    }
    const Basalt::CForeignReference<IOobeConfiguration> oobe(static_cast<IOobeConfiguration*>(object));

    USHORT state = kAllServicesEnabled;
    DWORD error = 0;
    bool answered = false;
    const HRESULT queried = Basalt::CallForeign(oobe.Get(), kGetServiceEnabledStateSlot, [&] {
        const HRESULT result = oobe.Get()->GetServiceEnabledState(&state, &error);
        answered = true;
        return result;
    });
    // The object's own verdict counts, not its HRESULT. One that broke down has given none: services run.
    if (error != 0 || !answered)
    {
        TX_LOG(LogError, kFunction, L"GetServiceEnabledState failed (0x%08X)", queried);
        return true;
    }
    if (state < kAllServicesEnabled)
    {
        TX_LOG(LogNormal, kFunction, L"Services are disabled due to OOBE state");
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"OOBE service has enabled all services, disabling OOBE check");
    config.SetIsOobeCheckRequired(FALSE);
    m_bOobeCheck = false;
    return true;
}
