#include "txsvcctl/LogStore.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "base/ObfuscatedRegKey.h"
#include "control/RegistryLink.h"
#include "logging/LogSettings.h"
#include "txsvcctl/Names.h"
#include "txsvcctl/ToolError.h"

using Basalt::CObfuscatedRegKey;

namespace TxCtl
{

namespace
{

// The logger's own key, by the road that exists also before the link does.
const std::wstring kSettingsPath = std::wstring(kProductKey32) + L"\\Logging";

/// Any number but kFileMechanism means events; this is the one that stands for them.
constexpr DWORD kEventsMechanism = 2;

struct NamedNumber
{
    const wchar_t* name;
    DWORD number;
};
constexpr NamedNumber kMechanisms[] = {{L"file", ETWLogging::kFileMechanism}, {L"events", kEventsMechanism}};
constexpr NamedNumber kFields[] = {
    {L"tag", ETWLogging::LogOptionTag},
    {L"process", ETWLogging::LogOptionProcess},
    {L"source", ETWLogging::LogOptionSource},
    {L"function", ETWLogging::LogOptionFunction}};
constexpr NamedNumber kFieldSets[] = {{L"all", ETWLogging::kAllOptions}, {L"none", 0}};

template <std::size_t Size>
std::optional<DWORD> NumberOf(const NamedNumber (&table)[Size], const std::wstring& name)
{
    const auto* found = std::find_if(std::begin(table), std::end(table), [&name](const NamedNumber& entry) {
        return IsSameName(entry.name, name);
    });
    return found == std::end(table) ? std::nullopt : std::optional(found->number);
}

template <std::size_t Size>
std::optional<std::wstring> NameOf(const NamedNumber (&table)[Size], DWORD number)
{
    const auto* found = std::find_if(std::begin(table), std::end(table), [number](const NamedNumber& entry) {
        return entry.number == number;
    });
    return found == std::end(table) ? std::nullopt : std::optional<std::wstring>(found->name);
}

std::optional<DWORD> ParseMechanism(const std::wstring& text)
{
    return NumberOf(kMechanisms, text);
}

std::optional<std::wstring> FormatMechanism(DWORD number)
{
    return NameOf(kMechanisms, number);
}

std::optional<DWORD> ParseLevel(const std::wstring& text)
{
    const DWORD level = text.size() == 1 ? static_cast<DWORD>(text.front()) - L'0' : 0;
    const bool isKnown = level >= ETWLogging::LogNormal && level <= ETWLogging::LogInformation2;
    return isKnown ? std::optional(level) : std::nullopt;
}

std::optional<std::wstring> FormatLevel(DWORD number)
{
    const std::wstring text = std::to_wstring(number);
    return ParseLevel(text) ? std::optional(text) : std::nullopt;
}

std::optional<DWORD> ParseFields(const std::wstring& text)
{
    DWORD options = NumberOf(kFieldSets, text).value_or(0);
    if (NumberOf(kFieldSets, text))
    {
        return options;
    }
    for (std::size_t at = 0; at <= text.size();)
    {
        const std::size_t end = std::min(text.size(), text.find(L',', at));
        const std::optional<DWORD> option = NumberOf(kFields, text.substr(at, end - at));
        if (!option)
        {
            return std::nullopt;
        }
        options |= *option;
        at = end + 1;
    }
    return options;
}

std::optional<std::wstring> FormatFields(DWORD number)
{
    if ((number & ~ETWLogging::kAllOptions) != 0)
    {
        return std::nullopt;
    }
    if (const std::optional<std::wstring> set = NameOf(kFieldSets, number))
    {
        return set;
    }
    std::wstring text;
    for (const NamedNumber& field : kFields)
    {
        if ((number & field.number) != 0)
        {
            text += (text.empty() ? L"" : L",") + std::wstring(field.name);
        }
    }
    return text;
}

struct NumberSetting
{
    const wchar_t* name;
    const wchar_t* valueName;
    const wchar_t* expected;
    DWORD defaultNumber;
    std::optional<DWORD> (*parse)(const std::wstring& text);
    std::optional<std::wstring> (*format)(DWORD number);
};
constexpr NumberSetting kNumberSettings[] = {
    {L"mechanism",
     ETWLogging::kMechanismSetting.name,
     L"file or events",
     kEventsMechanism,
     &ParseMechanism,
     &FormatMechanism},
    {L"level",
     ETWLogging::kLevelSetting.name,
     L"a number from 1 to 6",
     ETWLogging::kDefaultThreshold,
     &ParseLevel,
     &FormatLevel},
    {L"fields",
     ETWLogging::kOptionsSetting.name,
     L"some of tag, process, source and function, joined by commas, or all or none",
     ETWLogging::kDefaultOptions,
     &ParseFields,
     &FormatFields},
};

constexpr wchar_t kFolderName[] = L"folder";
/// As the services' environment has it, which is not always that of this program.
constexpr wchar_t kDefaultFolder[] = L"%ProgramData%\\Tarvex\\Log";

const NumberSetting* FindNumberSetting(const std::wstring& name)
{
    const auto* found = std::find_if(
        std::begin(kNumberSettings), std::end(kNumberSettings), [&name](const NumberSetting& setting) {
            return IsSameName(setting.name, name);
        });
    if (found != std::end(kNumberSettings))
    {
        return found;
    }
    if (!IsSameName(name, kFolderName))
    {
        ThrowUsage(L"'" + name + L"' is no logging setting: give mechanism, level, fields or folder");
    }
    return nullptr;
}

/// "C:\..." or "\\server\share...". A service's current folder says nothing, so the logger takes no other.
bool IsAbsoluteFolder(const std::wstring& path)
{
    const std::wstring start = path.substr(0, 3);
    const wchar_t letter = start.empty() ? L'\0' : static_cast<wchar_t>(start.front() | 0x20);
    return (letter >= L'a' && letter <= L'z' && start.substr(1) == L":\\") ||
           (start.size() == 3 && start.starts_with(L"\\\\"));
}

DWORD NumberFrom(const NumberSetting& setting, const std::wstring& text)
{
    const std::optional<DWORD> number = setting.parse(text);
    if (!number)
    {
        ThrowUsage(L"'" + text + L"' is no value for " + setting.name + L": give " + setting.expected);
    }
    return *number;
}

std::wstring FolderFrom(const std::wstring& text)
{
    std::wstring path = text;
    std::replace(path.begin(), path.end(), L'/', L'\\');
    // The logger would switch itself off over a name that Windows refuses, so none is let through here.
    if (!IsAbsoluteFolder(path) || path.find_first_of(L"<>\"|?*") != std::wstring::npos)
    {
        ThrowUsage(L"'" + text + L"' is no value for folder: give an absolute path");
    }
    return AbsolutePath(path);
}

/// @param status what the scrambled read returned.
LogValueState StateOf(const CObfuscatedRegKey& key, const wchar_t* valueName, DWORD status)
{
    if (status == ERROR_SUCCESS)
    {
        return LogValueState::Set;
    }
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return LogValueState::Missing;
    }
    if (status != ERROR_DATATYPE_MISMATCH && status != ERROR_INVALID_DATA)
    {
        ThrowFailure(L"read registry value", kSettingsPath + L"\\" + valueName, status);
    }
    DWORD type = REG_NONE;
    ::RegQueryValueExW(key.Get(), valueName, nullptr, &type, nullptr, nullptr);
    return type == REG_BINARY ? LogValueState::Damaged : LogValueState::Plain;
}

LogSettingReport GetNumber(const CObfuscatedRegKey& key, const NumberSetting& setting)
{
    LogSettingReport report{setting.name, setting.format(setting.defaultNumber).value_or(L""), {}};
    DWORD number = 0;
    const DWORD status = key ? key.ReadDword(setting.valueName, number) : DWORD{ERROR_FILE_NOT_FOUND};
    report.state = StateOf(key, setting.valueName, status);
    if (report.state == LogValueState::Set)
    {
        const std::optional<std::wstring> text = setting.format(number);
        report.state = text ? LogValueState::Set : LogValueState::Invalid;
        report.value = text.value_or(report.value);
    }
    return report;
}

LogSettingReport GetFolder(const CObfuscatedRegKey& key)
{
    LogSettingReport report{kFolderName, kDefaultFolder, {}};
    std::wstring folder;
    const wchar_t* const valueName = ETWLogging::kFolderSetting.name;
    const DWORD status = key ? key.ReadString(valueName, folder) : DWORD{ERROR_FILE_NOT_FOUND};
    report.state = StateOf(key, valueName, status);
    if (report.state == LogValueState::Set)
    {
        const bool isUsable = IsAbsoluteFolder(folder);
        report.state = isUsable ? LogValueState::Set : LogValueState::Invalid;
        report.value = isUsable ? folder : report.value;
    }
    return report;
}

} // namespace

std::wstring StateName(LogValueState state)
{
    switch (state)
    {
    case LogValueState::Set:
        return L"set";
    case LogValueState::Missing:
        return L"missing";
    case LogValueState::Plain:
        return L"plain";
    case LogValueState::Damaged:
        return L"damaged";
    case LogValueState::Invalid:
        return L"invalid";
    }
    return {};
}

std::vector<std::wstring> CLogStore::Names()
{
    std::vector<std::wstring> names;
    for (const NumberSetting& setting : kNumberSettings)
    {
        names.emplace_back(setting.name);
    }
    names.emplace_back(kFolderName);
    return names;
}

LogSettingReport CLogStore::Get(const std::wstring& name) const
{
    const NumberSetting* const setting = FindNumberSetting(name);
    CObfuscatedRegKey key;
    const DWORD status = key.Open(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ);
    if (status != ERROR_FILE_NOT_FOUND)
    {
        CheckStatus(status, L"open registry key", kSettingsPath);
    }
    return setting == nullptr ? GetFolder(key) : GetNumber(key, *setting);
}

void CLogStore::Check(const std::wstring& name, const std::wstring& value) const
{
    const NumberSetting* const setting = FindNumberSetting(name);
    if (setting == nullptr)
    {
        static_cast<void>(FolderFrom(value));
        return;
    }
    static_cast<void>(NumberFrom(*setting, value));
}

void CLogStore::Set(const std::wstring& name, const std::wstring& value) const
{
    Check(name, value);
    CObfuscatedRegKey key;
    CheckStatus(
        key.Create(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ | KEY_WRITE),
        L"open registry key",
        kSettingsPath);
    const NumberSetting* const setting = FindNumberSetting(name);
    const wchar_t* const valueName = setting == nullptr ? ETWLogging::kFolderSetting.name : setting->valueName;
    const DWORD status = setting == nullptr ? key.WriteString(valueName, FolderFrom(value))
                                            : key.WriteDword(valueName, NumberFrom(*setting, value));
    CheckStatus(status, L"write registry value", kSettingsPath + L"\\" + valueName);
}

} // namespace TxCtl
