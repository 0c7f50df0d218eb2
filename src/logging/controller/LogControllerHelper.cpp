#include "logging/controller/LogControllerHelper.h"

#include <windows.h>

#include <exception>
#include <utility>

#include "base/Paths.h"
#include "base/Text.h"
#include "contract/LogNames.h"
#include "eventlog/EventLog.h"
#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

namespace
{

constexpr wchar_t kFolder[] = L"TxSvcHost";
constexpr wchar_t kFolderBelowCommonFiles[] = L"\\Tarvex\\Platform\\TxSvcHost";

constexpr wchar_t kInstallKey[] = L"SOFTWARE\\Tarvex\\KSC";
constexpr wchar_t kCommonFilesValue[] = L"CommonFiles Dir64";

/// FOLDERID_ProgramFilesCommon
constexpr GUID kCommonProgramFiles = {
    0xF7F1ED05, 0x9F6D, 0x47A2, {0xAA, 0xAE, 0x29, 0xD3, 0x17, 0xC6, 0xF0, 0x66}};

} // namespace

LogControllerHelper::LogControllerHelper(
    std::unique_ptr<Basalt::ShlObjAPI>&& shell,
    std::unique_ptr<Basalt::CRegKey>&& key,
    std::unique_ptr<LogProperties>&& properties) noexcept
    : m_shell(std::move(shell)), m_key(std::move(key)), m_properties(std::move(properties))
{
}

bool LogControllerHelper::FindInstalledPath(std::wstring& path) noexcept
try
{
    std::wstring folder;
    const wchar_t* below = kFolder;
    const bool isConfigured = m_key->Open(HKEY_LOCAL_MACHINE, kInstallKey, KEY_READ) == ERROR_SUCCESS &&
                              m_key->ReadString(kCommonFilesValue, folder) == ERROR_SUCCESS;
    m_key->Close();
    if (isConfigured)
    {
        // An empty value is a value: the path then is a relative one, which nothing trusts.
        if (!folder.empty() && folder.back() != L'\\')
        {
            folder += L'\\';
        }
    }
    else if (SUCCEEDED(m_shell->GetKnownFolder(kCommonProgramFiles, folder)))
    {
        below = kFolderBelowCommonFiles;
    }
    else
    {
        return false;
    }
    path = Basalt::FormatText(L"%s%s\\%s", folder.c_str(), below, kControllerLibrary);
    return true;
}
catch (const std::exception&)
{
    return false;
}

bool LogControllerHelper::IsTrusted(const std::wstring& path) noexcept
{
    const DWORD verdict = m_trusted.Open(path);
    if (verdict != ERROR_SUCCESS && verdict != ERROR_FILE_NOT_FOUND && verdict != ERROR_PATH_NOT_FOUND)
    {
        EventLog::NotTrusted(path.c_str(), verdict);
    }
    return verdict == ERROR_SUCCESS;
}

bool LogControllerHelper::FindBesideModule(std::wstring& path) noexcept
try
{
    path = Basalt::ProgramFolder();
    if (path.empty())
    {
        return false;
    }
    path += kControllerLibrary;
    return true;
}
catch (const std::exception&)
{
    return false;
}

bool LogControllerHelper::FindInstalledTrusted(std::wstring& path) noexcept
{
    return FindInstalledPath(path) && IsTrusted(path);
}

bool LogControllerHelper::FindController(const wchar_t* applicationName, std::wstring& path) noexcept
{
    bool found = FindBesideModule(path) && IsTrusted(path);
    if (!found)
    {
        found = m_properties->GetControllerPath(applicationName, path) ? IsTrusted(path)
                                                                       : FindInstalledTrusted(path);
    }
    if (!found)
    {
        path.clear();
    }
    return found;
}

} // namespace ETWLogging
