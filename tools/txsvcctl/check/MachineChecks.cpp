#include <windows.h>
#include <objbase.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TxLogSecurity.h"
#include "TxSvcGroupControl.h"
#include "base/ClassObject.h"
#include "base/Paths.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "base/TrustedModule.h"
#include "contract/Keys.h"
#include "contract/LogNames.h"
#include "contract/LogSettings.h"
#include "control/TrustedCreation.h"
#include "control/UpdateManager.h"
#include "logging/controller/LogControllerHelper.h"
#include "process/ComApartment.h"
#include "txsvcctl/check/CheckTools.h"
#include "txsvcctl/check/Findings.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/host/HostStore.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/service/EventSource.h"
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

/// What the trusted-module check or COM said, with the number that the documents have.
std::wstring DescribeVerdict(DWORD verdict)
{
    return verdict <= MAXWORD ? DescribeError(verdict) : Basalt::FormatText(L"0x%08X", verdict);
}

/// Values that nobody reads.
/// @param isShared other programs' values may stand there: what resembles no known name is theirs.
void CheckNames(
    const std::wstring& path, const std::vector<std::wstring>& known, bool isShared, CFindings& findings)
{
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return; // Nothing is set.
    }
    for (const std::wstring& name : ValueNames(key, path))
    {
        const std::wstring meant = DidYouMean(name, known);
        if (!name.empty() && !HoldsName(known, name) && !(isShared && meant.empty()))
        {
            findings.Add(FindingId::UnknownValue, name, L"nobody reads it" + meant);
        }
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
    CheckNames(HostPath(), names, false, findings);
}

/// As a host asks it that starts now.
/// @return the client's answer, or why there is none.
HRESULT AskUpdateClient(DWORD& installing)
{
    const CComApartment com(COINIT_APARTMENTTHREADED);
    Basalt::CForeignReference<ITxUpdateClientRot> client;
    HRESULT result = com.Result();
    if (SUCCEEDED(result))
    {
        result = CreateTrustedObject(
            CLSID_TxUpdateClient,
            CLSCTX_LOCAL_SERVER,
            IID_ITxUpdateClientRot,
            reinterpret_cast<void**>(client.Put()));
    }
    return FAILED(result) ? result : Basalt::CallForeign(client.Get(), kIsInstallingSlot, [&] {
        return client.Get()->IsInstalling(&installing);
    });
}

void CheckUpdate(bool isProxyGood, CFindings& findings)
{
    constexpr wchar_t kSubject[] = L"the update client";
    if (!IsUpdateRunning())
    {
        return;
    }
    DWORD installing = 0;
    const HRESULT result = isProxyGood ? AskUpdateClient(installing) : E_ACCESSDENIED;
    if (FAILED(result))
    {
        findings.Add(
            FindingId::UpdateClientSilent,
            kSubject,
            (isProxyGood ? DescribeVerdict(static_cast<DWORD>(result)) : L"it needs the proxy") +
                L": a host that starts now runs its services");
        return;
    }
    findings.Add(
        FindingId::UpdateRunning,
        kSubject,
        installing != 0 ? L"it says that it installs: a host that starts now ends at once"
                        : L"it says that it does not install: hosts start");
}

/// A library that is there, or is configured, but that no host will load.
void CheckLogController(CFindings& findings)
{
    std::wstring paths[2] = {Basalt::ProgramFolder() + ETWLogging::kControllerLibrary, {}};
    const ETWLogging::LogProperties properties;
    const bool isConfigured = properties.GetControllerPath(ETWLogging::kHostApplication, paths[1]);
    if (!isConfigured)
    {
        ETWLogging::LogControllerHelper helper(
            std::make_unique<Basalt::ShlObjAPI>(),
            std::make_unique<Basalt::CRegKey>(),
            std::make_unique<ETWLogging::LogProperties>());
        static_cast<void>(helper.FindInstalledPath(paths[1]));
    }
    for (const std::wstring& path : paths)
    {
        const DWORD verdict = Basalt::CheckTrustedModule(path);
        const bool isMissing = verdict == ERROR_FILE_NOT_FOUND || verdict == ERROR_PATH_NOT_FOUND;
        if (verdict != ERROR_SUCCESS && (!isMissing || (isConfigured && &path == &paths[1])))
        {
            findings.Add(FindingId::LogControllerNotTrusted, path, DescribeVerdict(verdict));
        }
    }
}

void CheckLogRoom(const std::wstring& folder, CFindings& findings)
{
    constexpr ULONGLONG kEnough = 100ULL * 1024 * 1024; // More than a log of the default size comes to.
    ULARGE_INTEGER available{};
    if (::GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr) && available.QuadPart < kEnough)
    {
        findings.Add(
            FindingId::LogDiskFull, folder, InMiB(static_cast<double>(available.QuadPart)) + L" are free");
    }
}

/// @return whether it is there and can be used.
bool CheckLogPlace(const std::wstring& folder, CFindings& findings)
{
    const DWORD attributes = ::GetFileAttributesW(folder.c_str());
    const DWORD error = ::GetLastError();
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) // The host makes it.
        {
            findings.Add(FindingId::LogFolderUnusable, folder, DescribeError(error));
        }
        return false;
    }
    if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != FILE_ATTRIBUTE_DIRECTORY)
    {
        findings.Add(FindingId::LogFolderUnusable, folder, L"it is a link or no folder");
        return false;
    }
    return true;
}

/// @param configured empty for the default folder, whose parent must be in its place too.
void CheckLogFolder(const std::wstring& configured, CFindings& findings)
{
    const std::wstring folder = configured.empty() ? TxSdk::DefaultLogFolder() : configured;
    if (configured.empty())
    {
        static_cast<void>(CheckLogPlace(folder.substr(0, folder.rfind(L'\\')), findings));
    }
    if (!CheckLogPlace(folder, findings))
    {
        return;
    }
    if (CFileChecks().CanUsersWrite(folder))
    {
        findings.Add(FindingId::LogFolderWritable, folder, L"others than administrators may write there");
    }
    CheckLogRoom(folder, findings);
}

void CheckLog(CFindings& findings)
{
    const std::wstring path = Contract::In32BitView(Contract::kLoggingKey);
    std::vector<std::wstring> names;
    for (const auto& setting :
         {ETWLogging::kMechanismSetting,
          ETWLogging::kLevelSetting,
          ETWLogging::kOptionsSetting,
          ETWLogging::kEntriesSetting,
          ETWLogging::kOldFilesSetting,
          ETWLogging::kMutexSetting})
    {
        names.emplace_back(setting.name);
    }
    for (const auto& setting :
         {ETWLogging::kTagSetting, ETWLogging::kFolderSetting, ETWLogging::kFileSetting})
    {
        names.emplace_back(setting.name);
    }
    CheckNames(path, names, true, findings);
    const ETWLogging::LogSettings settings = CLogStore().Settings();
    if (!settings.problems.empty())
    {
        findings.Add(FindingId::LogSettingUnusable, {}, settings.problems);
    }
    if (settings.mechanism == ETWLogging::kFileMechanism)
    {
        CheckLogFolder(settings.folder, findings);
    }
    CheckLogController(findings);
}

/// The DLL that carries the calls between processes is the one that the host checks.
/// @return false when something is wrong with it for the interface.
bool CheckProxy(const IID& interfaceId, CFindings& findings)
{
    wchar_t text[39] = {};
    ::StringFromGUID2(interfaceId, text, static_cast<int>(std::size(text)));
    const std::wstring subject = std::wstring(L"Interface\\") + text;
    Basalt::CRegKey key;
    std::wstring clsid;
    if (key.Open(HKEY_CLASSES_ROOT, (subject + L"\\ProxyStubClsid32").c_str(), KEY_READ) != ERROR_SUCCESS ||
        key.ReadString(L"", clsid) != ERROR_SUCCESS)
    {
        findings.Add(FindingId::ProxyUnregistered, subject, L"it is not registered");
        return false;
    }
    const std::optional<std::wstring> module = CGroupStore().Module(clsid);
    if (!module || ::GetFileAttributesW(module->c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        findings.Add(
            FindingId::ProxyUnreadable,
            subject,
            module ? *module + L" is missing" : clsid + L" has no module");
        return false;
    }
    const DWORD verdict = Basalt::CheckTrustedModule(*module);
    if (verdict != ERROR_SUCCESS)
    {
        findings.Add(FindingId::ProxyNotTrusted, subject, *module + L": " + DescribeVerdict(verdict));
    }
    return verdict == ERROR_SUCCESS;
}

/// One finding is enough: one DLL serves them all.
bool CheckProxies(CFindings& findings)
{
    return CheckProxy(IID_ITxSvcSubsystemControlManager, findings) &&
           CheckProxy(IID_ITxSvcClassObject, findings) && CheckProxy(IID_ITxUpdateClientRot, findings);
}

} // namespace

void CheckMachine(CFindings& findings)
{
    findings.Attempt(Contract::kProductKey, [&findings] { CheckLink(findings); });
    findings.Attempt(HostPath(), [&findings] { CheckSettings(findings); });
    findings.Attempt({}, [&findings] { CheckLog(findings); });
    findings.Attempt({}, [&findings] { CheckUpdate(CheckProxies(findings), findings); });
}

void CheckEventSource(const std::wstring& program, CFindings& findings)
{
    if (program.empty())
    {
        return; // No host writes events.
    }
    const std::wstring problem = EventSourceProblem();
    if (!problem.empty())
    {
        findings.Add(FindingId::EventSourceUnusable, Contract::kEventSource, problem, [program] {
            CRegistryChange change;
            RegisterEventSource(change, program);
            change.Commit();
        });
    }
}

} // namespace TxCtl
