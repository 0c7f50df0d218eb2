#include "control/InstallingUpdate.h"

#include <windows.h>
#include <objbase.h>

#include "base/ClassObject.h"
#include "control/TrustedCreation.h"
#include "control/TxUpdateMgr_Helper.h"
#include "control/UpdateManager.h"
#include "logging/Log.h"
#include "process/ComApartment.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHostMain"; // Part of process entry, as its log shows it.
constexpr wchar_t kFunction[] = L"IsInstallingUpdate";

DWORD AskUpdateClient() noexcept
{
    const CComApartment com(COINIT_APARTMENTTHREADED);
    if (FAILED(com.Result()))
    {
        return 0;
    }
    Basalt::CForeignReference<ITxUpdateClientRot> client;
    const HRESULT created = CreateTrustedObject(
        CLSID_TxUpdateClient,
        CLSCTX_LOCAL_SERVER,
        IID_ITxUpdateClientRot,
        reinterpret_cast<void**>(client.Put()));
    if (FAILED(created))
    {
        TX_LOG(
            LogError,
            kFunction,
            L"Reduce restart: Failed to create ITxUpdateClientRot object,hr = 0x%x",
            created);
        return 0;
    }
    DWORD installing = 0;
    const HRESULT asked = Basalt::CallForeign(client.Get(), kIsInstallingSlot, [&client, &installing] {
        return client.Get()->IsInstalling(&installing);
    });
    if (FAILED(asked))
    {
        TX_LOG(
            LogError, kFunction, L"Reduce restart: Failed to ask ITxUpdateClientRot object,hr = 0x%x", asked);
        return 0; // A client that died during the call may have left anything in there.
    }
    return installing;
}

} // namespace

DWORD IsInstallingUpdate() noexcept
{
    TX_LOG(LogNormal, kFunction, L"Checking if an update is currently installing....");
    TX_LOG(LogNormal, kFunction, L"Enter IsInstallingUpdate");
    DWORD installing = 0;
    BOOL running = 0;
    CTxUpdateMgr_Helper helper;
    if (FAILED(helper.IsUpdateRunning(&running)) || running == 0)
    {
        TX_LOG(LogNormal, kFunction, L"update manager is not running");
    }
    else
    {
        installing = AskUpdateClient();
    }
    TX_LOG(LogInformation, kFunction, L"Reduce restart: IsInstallingUpdate return value is %d", installing);
    return installing;
}
