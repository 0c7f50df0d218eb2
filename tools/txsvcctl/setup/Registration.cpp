#include "txsvcctl/setup/Registration.h"

#include <windows.h>
#include <objbase.h>
#include <sddl.h>

#include <exception>

#include "TxLogSecurity.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/SystemLibrary.h"
#include "contract/Keys.h"
#include "contract/LogNames.h"
#include "contract/LogSettings.h"
#include "control/RegistryLink.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/RegistryChange.h"
#include "txsvcctl/service/RegistryNames.h"
#include "txsvcctl/service/ServiceInstaller.h"

namespace TxCtl
{

namespace
{

/// Of group control; the application has the same id as its one class.
constexpr wchar_t kClassPath[] = L"Software\\Classes\\CLSID\\{050813AE-50A9-44C9-8498-14DE61E60D23}";
constexpr wchar_t kApplicationPath[] = L"Software\\Classes\\AppID\\{050813AE-50A9-44C9-8498-14DE61E60D23}";
constexpr wchar_t kApplicationId[] = L"{050813AE-50A9-44C9-8498-14DE61E60D23}";
constexpr wchar_t kName[] = L"Tarvex Shared Service Host group control";

/// The hosts run already, as the system: callers of every account then reach the same ones. Only the system
/// and administrators may: execute and activate, on this machine.
constexpr wchar_t kAccount[] = L"nt authority\\system";
constexpr wchar_t kPermission[] = L"O:BAG:BAD:(A;;0xB;;;SY)(A;;0xB;;;BA)";

void CallExport(const std::wstring& module, const char* name)
{
    const Basalt::CModule library(::LoadLibraryExW(
        module.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32));
    auto* const function = Basalt::FindExport<HRESULT STDAPICALLTYPE()>(library.Get(), name);
    const HRESULT result = function == nullptr ? HRESULT_FROM_WIN32(::GetLastError()) : function();
    if (FAILED(result))
    {
        ThrowFailure(L"register or unregister", module, static_cast<DWORD>(result));
    }
}

void WritePermission()
{
    Basalt::CLocalMemory descriptor;
    ULONG size = 0;
    Basalt::CRegKey key;
    DWORD status = ::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                       kPermission, SDDL_REVISION_1, descriptor.Put(), &size)
                       ? key.Open(HKEY_LOCAL_MACHINE, kApplicationPath, KEY_WRITE)
                       : ::GetLastError();
    if (status == ERROR_SUCCESS)
    {
        status = key.WriteValue(L"LaunchPermission", REG_BINARY, descriptor.Get(), size);
    }
    CheckStatus(status, L"write the permission in", kApplicationPath);
}

/// The rest goes on.
template <typename Step>
void Try(IConsole& console, Step step)
{
    try
    {
        step();
    }
    catch (const CToolError& error)
    {
        console.Note(error.Text());
    }
}

void RemoveGroups(IConsole& console)
{
    const CGroupStore store;
    for (const std::wstring& group : store.Groups())
    {
        for (const std::wstring& service : store.Services(group))
        {
            Try(console, [&] { RemoveService({group, service}, console); });
        }
    }
}

/// The files by their names, and the folder where nothing else is in it.
void RemoveLogs(const std::wstring& iniPath)
{
    const ETWLogging::LogSettings settings = CLogStore(iniPath).Settings();
    const std::wstring folder = settings.folder.empty() ? TxSdk::DefaultLogFolder() : settings.folder;
    const std::wstring name = settings.fileName.empty()
                                  ? ETWLogging::DefaultLogFileName(ETWLogging::kHostLogGroup)
                                  : settings.fileName;
    for (DWORD number = 0; number <= ETWLogging::kOldFilesSetting.most; ++number)
    {
        ::DeleteFileW(ETWLogging::RotatedLogPath((folder + L"\\").append(name), number).c_str());
    }
    if (TxSdk::IsDefaultLogFolder(folder) && ::RemoveDirectoryW(folder.c_str()))
    {
        ::RemoveDirectoryW(folder.substr(0, folder.rfind(L'\\')).c_str());
    }
}

/// Other components of the product keep theirs.
void RemoveSettings()
{
    CRegistryChange change;
    change.DeleteKey(HostPath());
    change.DeleteKey(Contract::In32BitView(Contract::kLoggingKey));
    change.DeleteKeyIfEmpty(HostPath().substr(0, HostPath().rfind(L'\\')));
    change.DeleteKeyIfEmpty(Contract::kProductKey32);
    change.Commit();

    Basalt::CRegKey key;
    const bool isNeeded =
        key.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey32, KEY_READ) != ERROR_FILE_NOT_FOUND;
    if (!isNeeded && InspectViewLink() == ViewLinkState::Link)
    {
        CheckStatus(
            key.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK),
            L"open registry key",
            Contract::kProductKey);
        CheckStatus(
            DeleteKeyByHandle(key.Get()) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED,
            L"delete registry link",
            Contract::kProductKey);
    }
}

} // namespace

void RegisterClasses(const std::wstring& proxies)
{
    CallExport(proxies, "DllRegisterServer");
    CRegistryChange change;
    change.SetString(kApplicationPath, {}, kName);
    change.SetString(kApplicationPath, L"RunAs", kAccount);
    WritePermission();
    // Last: without the above it would mean another account.
    change.SetString(kClassPath, {}, kName);
    change.SetString(kClassPath, L"AppID", kApplicationId);
    change.Commit();
}

void UnregisterClasses(const std::wstring& proxies, IConsole& console)
{
    Try(console, [] {
        CRegistryChange change;
        change.DeleteKey(kClassPath);
        change.DeleteKey(kApplicationPath);
        change.Commit();
    });
    Try(console, [&] { CallExport(proxies, "DllUnregisterServer"); });
}

void PurgeSettings(const std::wstring& iniPath, IConsole& console)
{
    RemoveGroups(console);
    Try(console, [&] { RemoveLogs(iniPath); });
    Try(console, [] { RemoveSettings(); });
}

} // namespace TxCtl
