#include <windows.h>

#include <string>
#include <vector>

#include "TxLogSecurity.h"
#include "TxSvcGroupControl.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "contract/Keys.h"
#include "txsvcctl/check/CheckTools.h"
#include "txsvcctl/check/Findings.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/RegistryNames.h"

namespace TxCtl
{

namespace
{

void CheckLink(CFindings& findings)
{
    switch (InspectViewLink())
    {
    case ViewLinkState::Missing:
    case ViewLinkState::EmptyKey:
        findings.Add(FindingId::LinkMissing, Contract::kProductKey, L"there is no link yet", [] {
            class CQuiet final : public IConsole
            {
                void Out(const std::wstring& /*text*/) override {}
                void Error(const std::wstring& /*text*/) override {}
            } quiet;
            EnsureViewLink(false, quiet);
        });
        return;
    case ViewLinkState::FilledKey:
        findings.Add(FindingId::LinkBlocked, Contract::kProductKey, L"an ordinary key with contents");
        return;
    case ViewLinkState::OtherLink:
        findings.Add(
            FindingId::LinkElsewhere,
            Contract::kProductKey,
            L"it does not lead to " + std::wstring(Contract::kProductKey32));
        return;
    case ViewLinkState::Link:
        return;
    }
}

void CheckSettings(CFindings& findings)
{
    const CHostStore store;
    std::vector<std::wstring> names = {Contract::kInstallDirValue, Contract::kMisspeltOccurrenceCount};
    for (const Contract::HostSetting& setting : CHostStore::Settings())
    {
        const std::wstring name = setting.name;
        const HostSettingReport report = store.Get(name);
        names.push_back(name);
        if (!report.problem.empty())
        {
            findings.Add(
                FindingId::SettingUnusable,
                name,
                report.problem + Basalt::FormatText(L": the default %u applies", report.value),
                [name] { CHostStore().Unset(name); });
        }
    }
    const std::wstring path = HostPath();
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return; // Nothing is set.
    }
    for (const std::wstring& name : ValueNames(key, path))
    {
        if (!name.empty() && !HoldsName(names, name))
        {
            findings.Add(FindingId::UnknownValue, name, L"nobody reads it" + DidYouMean(name, names));
        }
    }
}

void CheckUpdate(CFindings& findings)
{
    if (IsUpdateRunning())
    {
        findings.Add(FindingId::UpdateRunning, {}, L"it may be installing");
    }
}

void CheckLog(CFindings& findings)
{
    const ETWLogging::LogSettings settings = CLogStore().Settings();
    if (!settings.problems.empty())
    {
        findings.Add(FindingId::LogSettingUnusable, {}, settings.problems);
    }
    if (settings.mechanism != ETWLogging::kFileMechanism)
    {
        return;
    }
    const std::wstring folder = settings.folder.empty() ? TxSdk::DefaultLogFolder() : settings.folder;
    const DWORD attributes = ::GetFileAttributesW(folder.c_str());
    const DWORD error = ::GetLastError();
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) // The host makes it.
        {
            findings.Add(FindingId::LogFolderUnusable, folder, DescribeError(error));
        }
    }
    else if (
        (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != FILE_ATTRIBUTE_DIRECTORY)
    {
        findings.Add(FindingId::LogFolderUnusable, folder, L"it is a link or no folder");
    }
    else if (CanUsersWrite(folder))
    {
        findings.Add(FindingId::LogFolderWritable, folder, L"others than administrators may write there");
    }
}

void CheckProxy(CFindings& findings)
{
    wchar_t interfaceId[39] = {};
    ::StringFromGUID2(
        IID_ITxSvcSubsystemControlManager, interfaceId, static_cast<int>(std::size(interfaceId)));
    const std::wstring subject = std::wstring(L"Interface\\") + interfaceId;
    Basalt::CRegKey key;
    std::wstring clsid;
    if (key.Open(HKEY_CLASSES_ROOT, (subject + L"\\ProxyStubClsid32").c_str(), KEY_READ) != ERROR_SUCCESS ||
        key.ReadString(L"", clsid) != ERROR_SUCCESS)
    {
        findings.Add(FindingId::ProxyUnregistered, subject, L"it is not registered");
        return;
    }
    const std::optional<std::wstring> module = CGroupStore().Module(clsid);
    if (!module || ::GetFileAttributesW(module->c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        findings.Add(
            FindingId::ProxyUnreadable,
            subject,
            module ? *module + L" is missing" : clsid + L" has no module");
    }
}

} // namespace

void CheckMachine(CFindings& findings)
{
    CheckLink(findings);
    CheckSettings(findings);
    CheckUpdate(findings);
    CheckLog(findings);
    CheckProxy(findings);
}

} // namespace TxCtl
