#include "txsvcctl/common/ViewLink.h"

#include <windows.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/RegKey.h"
#include "contract/Keys.h"
#include "contract/LinkForm.h"
#include "control/RegistryLink.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

std::wstring DescribeObstacle(ViewLinkState state)
{
    const std::wstring subject = std::wstring(L"HKEY_LOCAL_MACHINE\\") + Contract::kProductKey;
    return state == ViewLinkState::OtherLink
               ? subject + L" is a link to another place than " + Contract::kProductKey32
               : subject + L" is an ordinary key with contents in place of a link to " +
                     Contract::kProductKey32;
}

bool IsObstacle(ViewLinkState state)
{
    return state == ViewLinkState::FilledKey || state == ViewLinkState::OtherLink;
}

bool LeadsToTarget(const std::vector<BYTE>& linkData)
{
    std::wstring target(linkData.size() / sizeof(wchar_t), L'\0');
    std::memcpy(target.data(), linkData.data(), target.size() * sizeof(wchar_t));
    return IsSameName(target, Contract::kKernelPrefix + std::wstring(Contract::kProductKey32));
}

} // namespace

ViewLinkState InspectViewLink()
{
    Basalt::CRegKey key;
    DWORD status = key.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_READ, REG_OPTION_OPEN_LINK);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return ViewLinkState::Missing;
    }
    CheckStatus(status, L"open registry key", Contract::kProductKey);

    DWORD type = REG_NONE;
    std::vector<BYTE> linkData;
    if (key.ReadValue(Contract::kLinkValue, type, linkData) == ERROR_SUCCESS && type == REG_LINK)
    {
        return LeadsToTarget(linkData) ? ViewLinkState::Link : ViewLinkState::OtherLink;
    }
    DWORD subKeyCount = 0;
    DWORD valueCount = 0;
    status = key.GetInfo(subKeyCount, valueCount);
    CheckStatus(status, L"read registry key", Contract::kProductKey);
    return subKeyCount == 0 && valueCount == 0 ? ViewLinkState::EmptyKey : ViewLinkState::FilledKey;
}

void EnsureViewLink(bool replace, IConsole& console)
{
    const ViewLinkState state = InspectViewLink();
    if (state == ViewLinkState::Link)
    {
        return;
    }
    if (IsObstacle(state) && !replace)
    {
        ThrowFailed(
            DescribeObstacle(state) +
            L". Nothing was changed. The host replaces an ordinary key at its next start, and with it all "
            L"its "
            L"contents. Save what you need of it, then repeat the command with --replace-key.");
    }
    // Forced, because an empty key stands in the way as well.
    if (!CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true) ||
        !IsRegistryLink(Contract::kProductKey))
    {
        ThrowFailed(
            std::wstring(L"cannot make the link HKEY_LOCAL_MACHINE\\") + Contract::kProductKey + L" to " +
            Contract::kProductKey32 + L" (are you an administrator?)");
    }
    if (IsObstacle(state))
    {
        console.Note(
            std::wstring(L"what stood at HKEY_LOCAL_MACHINE\\") + Contract::kProductKey + L" was replaced");
    }
}

void WarnAboutViewLink(IConsole& console)
{
    const ViewLinkState state = InspectViewLink();
    if (IsObstacle(state))
    {
        console.Error(
            L"warning: " + DescribeObstacle(state) + L": the host does not read the settings shown here");
    }
}

} // namespace TxCtl
