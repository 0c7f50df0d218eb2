#include "logging/settings/LogSettingsReader.h"

#include <cwchar>
#include <memory>
#include <optional>

#include "base/Owned.h"
#include "base/Paths.h"
#include "base/Text.h"
#include "contract/LogNames.h"

namespace ETWLogging
{

namespace
{

constexpr wchar_t kRegistryName[] = L"registry";

/// Decimal, or hexadecimal after "0x"; nothing else beside it.
std::optional<DWORD> ParseNumber(const std::wstring& text) noexcept
{
    constexpr int kDecimal = 10;
    constexpr int kHexadecimal = 16;
    const bool isHex = text.starts_with(L"0x") || text.starts_with(L"0X");
    const std::size_t start = isHex ? 2 : 0;
    if (start == text.size() || std::wcschr(L"+- \t", text[start]) != nullptr)
    {
        return std::nullopt;
    }
    wchar_t* end = nullptr;
    // The system's: the library's own wcstoull is half a kilobyte in every image.
    const ULONGLONG number = ::_wcstoui64(&text[start], &end, isHex ? kHexadecimal : kDecimal);
    return *end == L'\0' && number <= MAXDWORD ? std::optional(static_cast<DWORD>(number)) : std::nullopt;
}

/// Control characters other than those of a text file tell that a file is none. UTF-16 needs its mark.
bool IsText(const unsigned char* bytes, DWORD size) noexcept
{
    if (size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF)
    {
        return false; // The mark of UTF-8, behind which the system would not find the section.
    }
    const bool isWide = size >= sizeof(wchar_t) && bytes[0] == 0xFF && bytes[1] == 0xFE;
    const DWORD step = isWide ? sizeof(wchar_t) : 1;
    for (DWORD i = 0; i + step <= size; i += step)
    {
        const bool isAscii = !isWide || bytes[i + 1] == 0;
        if (isAscii && bytes[i] < ' ' && bytes[i] != '\t' && bytes[i] != '\r' && bytes[i] != '\n')
        {
            return false;
        }
    }
    return size % step == 0;
}

/// @param isText receives whether the file's beginning, which is all of a sensible one, is text.
DWORD LookAtFile(const std::wstring& path, bool& isText)
{
    constexpr DWORD kLookAtBytes = 65536;
    const Basalt::CFile file(::CreateFileW(
        path.c_str(),
        GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    if (!file)
    {
        return ::GetLastError();
    }
    DWORD read = 0;
    const std::unique_ptr<unsigned char[]> bytes(new unsigned char[kLookAtBytes]);
    if (!::ReadFile(file.Get(), bytes.get(), kLookAtBytes, &read, nullptr))
    {
        return ::GetLastError();
    }
    isText = IsText(bytes.get(), read);
    return ERROR_SUCCESS;
}

} // namespace

std::wstring LogIniPath()
{
    return Basalt::ProgramFolder() + kLogIniName;
}

CLogSettingsReader::CLogSettingsReader() : CLogSettingsReader(LogIniPath(), Contract::kLoggingKey) {}

CLogSettingsReader::CLogSettingsReader(const std::wstring& iniPath, const wchar_t* keyPath)
    : m_iniPath(iniPath)
{
    dropUnusableIni();
    const DWORD status = m_key.Open(HKEY_LOCAL_MACHINE, keyPath, KEY_READ);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND)
    {
        addProblem(Basalt::FormatText(L"error %u", status).c_str(), kRegistryName);
    }
}

void CLogSettingsReader::dropUnusableIni()
{
    bool isText = false;
    const DWORD status = LookAtFile(m_iniPath, isText);
    if (status == ERROR_SUCCESS && isText)
    {
        return;
    }
    m_iniPath.clear();
    if (status == ERROR_SUCCESS)
    {
        addProblem(L"no text", kLogIniName);
    }
    else if (status != ERROR_FILE_NOT_FOUND)
    {
        addProblem(Basalt::FormatText(L"error %u", status).c_str(), kLogIniName);
    }
}

bool CLogSettingsReader::readIni(const wchar_t* name, std::wstring& text)
{
    constexpr DWORD kLongestValue = 1024;
    if (m_iniPath.empty())
    {
        return false;
    }
    text.resize(kLongestValue);
    text.resize(
        ::GetPrivateProfileStringW(kLogIniSection, name, L"", text.data(), kLongestValue, m_iniPath.c_str()));
    if (text.size() == kLongestValue - 1)
    {
        addProblem(name, kLogIniName); // It may have been cut.
        return false;
    }
    return !text.empty();
}

LogSettingOrigin CLogSettingsReader::ReadNumber(const LogNumberSetting& setting, DWORD& value)
{
    std::wstring text;
    if (readIni(setting.name, text))
    {
        const std::optional<DWORD> number = ParseNumber(text);
        if (number && setting.IsValid(*number))
        {
            value = *number;
            return LogSettingOrigin::IniFile;
        }
        addProblem(setting.name, kLogIniName);
    }
    DWORD number = 0;
    const DWORD status = m_key ? m_key.ReadDword(setting.name, number) : DWORD{ERROR_FILE_NOT_FOUND};
    const bool isFound = acceptOrReport(status, setting.IsValid(number), setting.name);
    value = isFound ? number : setting.fallback;
    return isFound ? LogSettingOrigin::Registry : LogSettingOrigin::Default;
}

LogSettingOrigin CLogSettingsReader::ReadText(const LogTextSetting& setting, std::wstring& value)
{
    std::wstring text;
    if (readIni(setting.name, text))
    {
        if (setting.isValid(text))
        {
            value = text;
            return LogSettingOrigin::IniFile;
        }
        addProblem(setting.name, kLogIniName);
    }
    const DWORD status = m_key ? m_key.ReadString(setting.name, text) : DWORD{ERROR_FILE_NOT_FOUND};
    if (!acceptOrReport(status, setting.isValid(text), setting.name))
    {
        return LogSettingOrigin::Default;
    }
    value = text;
    return LogSettingOrigin::Registry;
}

LogSettingOrigin CLogSettingsReader::ReadControllerPath(const std::wstring& application, std::wstring& path)
{
    const std::wstring name = kControllerPathPrefix + application;
    return ReadText({name.c_str(), [](const std::wstring& /*path*/) noexcept { return true; }}, path);
}

/// @param status of reading the registry value.
bool CLogSettingsReader::acceptOrReport(DWORD status, bool isValid, const wchar_t* name)
{
    const bool usable = status == ERROR_SUCCESS && isValid;
    if (!usable && status != ERROR_FILE_NOT_FOUND)
    {
        addProblem(name, kRegistryName);
    }
    return usable;
}

void CLogSettingsReader::addProblem(const wchar_t* what, const wchar_t* where)
{
    m_problems += Basalt::FormatText(L"%s%s (%s)", m_problems.empty() ? L"" : L", ", what, where);
}

LogSettings ReadLogSettings(CLogSettingsReader&& reader)
{
    LogSettings settings;
    reader.ReadNumber(kMechanismSetting, settings.mechanism);
    reader.ReadNumber(kLevelSetting, settings.threshold);
    reader.ReadNumber(kOptionsSetting, settings.options);
    reader.ReadNumber(kEntriesSetting, settings.entriesPerFile);
    reader.ReadNumber(kOldFilesSetting, settings.oldFiles);
    DWORD useMutex = 0;
    reader.ReadNumber(kMutexSetting, useMutex);
    settings.useMutex = useMutex != 0;
    reader.ReadText(kTagSetting, settings.tag);
    reader.ReadText(kFolderSetting, settings.folder);
    reader.ReadText(kFileSetting, settings.fileName);
    std::wstring controllerPath; // Not the logger's, but nobody else would report it.
    static_cast<void>(reader.ReadControllerPath(kHostApplication, controllerPath));
    settings.folder.erase(settings.folder.find_last_not_of(L'\\') + 1);
    settings.problems = reader.Problems();
    return settings;
}

} // namespace ETWLogging
