#include "txsvcctl/LogStore.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "base/ObfuscatedRegKey.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "txsvcctl/Names.h"
#include "txsvcctl/ToolError.h"

using Basalt::CObfuscatedRegKey;
using ETWLogging::CLogSettingsReader;
using ETWLogging::LogNumberSetting;
using ETWLogging::LogSettingOrigin;
using ETWLogging::LogTextSetting;

namespace TxCtl
{

namespace
{

// The logger's own key, by the road that exists also before the link does.
const std::wstring kSettingsPath = Contract::In32BitView(Contract::kLoggingKey);

/// Any number but kFileMechanism means events; this is the one that stands for them.
constexpr DWORD kEventsMechanism = 2;

struct NamedNumber
{
    const wchar_t* name;
    DWORD number;
};
constexpr NamedNumber kFields[] = {
    {L"tag", ETWLogging::LogOptionTag},
    {L"process", ETWLogging::LogOptionProcess},
    {L"source", ETWLogging::LogOptionSource},
    {L"function", ETWLogging::LogOptionFunction}};

std::optional<DWORD> ParseDecimal(const std::wstring& text)
{
    constexpr std::size_t kMostDigits = 9;
    if (text.empty() || text.size() > kMostDigits ||
        text.find_first_not_of(L"0123456789") != std::wstring::npos)
    {
        return std::nullopt;
    }
    return static_cast<DWORD>(std::stoul(text));
}

std::wstring FormatDecimal(DWORD number)
{
    return std::to_wstring(number);
}

std::optional<DWORD> ParseMechanism(const std::wstring& text)
{
    return IsSameName(text, L"file")     ? std::optional(ETWLogging::kFileMechanism)
           : IsSameName(text, L"events") ? std::optional(kEventsMechanism)
                                         : std::nullopt;
}

std::wstring FormatMechanism(DWORD number)
{
    return number == ETWLogging::kFileMechanism ? L"file" : L"events";
}

std::optional<DWORD> ParseSwitch(const std::wstring& text)
{
    return IsSameName(text, L"on")    ? std::optional<DWORD>(1)
           : IsSameName(text, L"off") ? std::optional<DWORD>(0)
                                      : std::nullopt;
}

std::wstring FormatSwitch(DWORD number)
{
    return number != 0 ? L"on" : L"off";
}

std::optional<DWORD> ParseFields(const std::wstring& text)
{
    if (IsSameName(text, L"all") || IsSameName(text, L"none"))
    {
        return IsSameName(text, L"all") ? ETWLogging::kAllOptions : 0;
    }
    DWORD options = 0;
    for (std::size_t at = 0; at <= text.size();)
    {
        const std::size_t end = std::min(text.size(), text.find(L',', at));
        const std::wstring name = text.substr(at, end - at);
        const auto* const field =
            std::find_if(std::begin(kFields), std::end(kFields), [&name](const NamedNumber& known) {
                return IsSameName(known.name, name);
            });
        if (field == std::end(kFields))
        {
            return std::nullopt;
        }
        options |= field->number;
        at = end + 1;
    }
    return options;
}

std::wstring FormatFields(DWORD number)
{
    if (number == 0 || number == ETWLogging::kAllOptions)
    {
        return number == 0 ? L"none" : L"all";
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

/// A path in the form that the logger takes; empty for what is none, which the logger's rule refuses.
std::wstring NormalPath(std::wstring path)
{
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return ETWLogging::IsAbsolutePath(path) ? AbsolutePath(path) : std::wstring();
}

std::wstring SameText(std::wstring text)
{
    return text;
}

/// Either a number or a text.
struct Setting
{
    const wchar_t* name;
    const wchar_t* expected;
    bool atOnce = false; ///< Running hosts take a change up.
    const LogNumberSetting* number = nullptr;
    std::optional<DWORD> (*parse)(const std::wstring& text) = nullptr;
    std::wstring (*format)(DWORD number) = nullptr;
    LogTextSetting text{};
    std::wstring (*normal)(std::wstring text) = nullptr;
    const wchar_t* fallback = nullptr; ///< of a text
};

constexpr wchar_t kControllerName[] = L"controller:";
constexpr wchar_t kAbsolutePath[] = L"an absolute path";

const Setting kSettings[] = {
    {.name = L"mechanism",
     .expected = L"file or events",
     .number = &ETWLogging::kMechanismSetting,
     .parse = &ParseMechanism,
     .format = &FormatMechanism},
    {.name = L"level",
     .expected = L"a number from 1 to 6",
     .atOnce = true,
     .number = &ETWLogging::kLevelSetting,
     .parse = &ParseDecimal,
     .format = &FormatDecimal},
    {.name = L"fields",
     .expected = L"some of tag, process, source and function, joined by commas, or all or none",
     .atOnce = true,
     .number = &ETWLogging::kOptionsSetting,
     .parse = &ParseFields,
     .format = &FormatFields},
    {.name = L"entries",
     .expected = L"how many a file takes, at most 100000000, or 0 for any number",
     .atOnce = true,
     .number = &ETWLogging::kEntriesSetting,
     .parse = &ParseDecimal,
     .format = &FormatDecimal},
    {.name = L"old-files",
     .expected = L"a number up to 99",
     .atOnce = true,
     .number = &ETWLogging::kOldFilesSetting,
     .parse = &ParseDecimal,
     .format = &FormatDecimal},
    {.name = L"mutex",
     .expected = L"on or off",
     .number = &ETWLogging::kMutexSetting,
     .parse = &ParseSwitch,
     .format = &FormatSwitch},
    {.name = L"tag",
     .expected = L"a text without $",
     .text = ETWLogging::kTagSetting,
     .normal = &SameText,
     .fallback = L"TxSvHost"},
    {.name = L"folder",
     .expected = kAbsolutePath,
     .text = ETWLogging::kFolderSetting,
     .normal = &NormalPath,
     // As the services' environment has it, which is not always that of this program.
     .fallback = L"%ProgramData%\\Tarvex\\Log"},
    {.name = L"file",
     .expected = L"a file name with an extension",
     .text = ETWLogging::kFileSetting,
     .normal = &SameText,
     .fallback = L"PLATFORM.log"},
    {.name = kControllerName,
     .expected = kAbsolutePath,
     .text = {nullptr, &ETWLogging::IsAbsolutePath}, // The name has the application's behind it.
     .normal = &NormalPath,
     .fallback = L"(searched for)"},
};

/// A setting, and the name of its value in the registry and in the file.
struct Found
{
    const Setting& setting;
    std::wstring valueName;

    [[nodiscard]] LogTextSetting Text() const { return {valueName.c_str(), setting.text.isValid}; }
};

Found Find(const std::wstring& name)
{
    constexpr std::size_t kPrefix = std::size(kControllerName) - 1;
    const bool isController = name.size() > kPrefix && IsSameName(name.substr(0, kPrefix), kControllerName);
    const std::wstring wanted = isController ? kControllerName : name;
    const auto* const found =
        std::find_if(std::begin(kSettings), std::end(kSettings), [&wanted](const Setting& setting) {
            return IsSameName(setting.name, wanted);
        });
    if (found == std::end(kSettings) || (found->text.name == nullptr && !found->number && !isController))
    {
        ThrowUsage(
            L"'" + name +
            L"' is no logging setting: give mechanism, level, fields, entries, old-files, "
            L"mutex, tag, folder, file or controller:APPLICATION");
    }
    return {
        *found,
        isController               ? ETWLogging::kControllerPathPrefix + name.substr(kPrefix)
        : found->number != nullptr ? found->number->name
                                   : found->text.name};
}

[[noreturn]] void ThrowBadValue(const Setting& setting, const std::wstring& value)
{
    ThrowUsage(L"'" + value + L"' is no value for '" + setting.name + L"': give " + setting.expected);
}

DWORD NumberFrom(const Setting& setting, const std::wstring& value)
{
    const std::optional<DWORD> number = setting.parse(value);
    if (!number || !setting.number->IsValid(*number))
    {
        ThrowBadValue(setting, value);
    }
    return *number;
}

std::wstring TextFrom(const Setting& setting, const std::wstring& value)
{
    const std::wstring text = setting.normal(value);
    if (!setting.text.isValid(text))
    {
        ThrowBadValue(setting, value);
    }
    return text;
}

} // namespace

std::wstring OriginName(LogSettingOrigin origin)
{
    switch (origin)
    {
    case LogSettingOrigin::IniFile:
        return ETWLogging::kLogIniName;
    case LogSettingOrigin::Registry:
        return L"registry";
    case LogSettingOrigin::Default:
        break;
    }
    return L"default";
}

std::vector<std::wstring> CLogStore::Names()
{
    std::vector<std::wstring> names;
    for (const Setting& setting : kSettings)
    {
        names.emplace_back(setting.name);
    }
    names.back() += L"WSS"; // The host's own name for its controller.
    return names;
}

bool CLogStore::TakesEffectAtOnce(const std::wstring& name)
{
    return Find(name).setting.atOnce;
}

LogSettingReport CLogStore::Get(const std::wstring& name) const
{
    const Found found = Find(name);
    CLogSettingsReader reader(m_iniPath, kSettingsPath.c_str());
    LogSettingReport report{name, {}, {}, {}};
    if (found.setting.number != nullptr)
    {
        DWORD number = 0;
        report.origin = reader.ReadNumber(*found.setting.number, number);
        report.value = found.setting.format(number);
    }
    else
    {
        report.value = found.setting.fallback;
        LogTextSetting text = found.Text();
        if (found.setting.text.name == nullptr)
        {
            text.isValid = [](const std::wstring& /*path*/) noexcept {
                return true;
            }; // As the host takes it.
        }
        report.origin = reader.ReadText(text, report.value);
    }
    report.unusable = reader.Problems();
    return report;
}

void CLogStore::Check(const std::wstring& name, const std::wstring& value) const
{
    const Found found = Find(name);
    if (found.setting.number != nullptr)
    {
        static_cast<void>(NumberFrom(found.setting, value));
        return;
    }
    static_cast<void>(TextFrom(found.setting, value));
}

void CLogStore::Set(const std::wstring& name, const std::wstring& value) const
{
    Check(name, value);
    const Found found = Find(name);
    CObfuscatedRegKey key;
    CheckStatus(
        key.Create(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ | KEY_WRITE),
        L"open registry key",
        kSettingsPath);
    const wchar_t* const valueName = found.valueName.c_str();
    const DWORD status = found.setting.number != nullptr
                             ? key.WriteDword(valueName, NumberFrom(found.setting, value))
                             : key.WriteString(valueName, TextFrom(found.setting, value));
    CheckStatus(status, L"write registry value", kSettingsPath + L"\\" + valueName);
}

bool CLogStore::Unset(const std::wstring& name) const
{
    const Found found = Find(name);
    CObfuscatedRegKey key;
    DWORD status = key.Open(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ | KEY_WRITE);
    if (status == ERROR_SUCCESS)
    {
        status = key.DeleteValue(found.valueName.c_str());
    }
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return false;
    }
    CheckStatus(status, L"delete registry value", kSettingsPath + L"\\" + found.valueName);
    return true;
}

} // namespace TxCtl
