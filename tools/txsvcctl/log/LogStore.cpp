#include "txsvcctl/log/LogStore.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <variant>

#include "TxLogSecurity.h"
#include "base/ObfuscatedRegKey.h"
#include "contract/CommandLine.h"
#include "contract/Keys.h"
#include "contract/LogNames.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"

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

struct NumberForm
{
    const ETWLogging::LogNumberSetting& setting;
    std::optional<DWORD> (*parse)(const std::wstring& text);
    std::wstring (*format)(DWORD number);
};

struct TextForm
{
    ETWLogging::LogTextSetting setting;
    std::wstring (*normal)(std::wstring text);
    std::wstring (*fallback)(); ///< to be shown
};

struct Setting
{
    const wchar_t* name;
    const wchar_t* expected;
    bool atOnce; ///< Running hosts take a change up.
    std::variant<NumberForm, TextForm> form;
};

constexpr wchar_t kControllerName[] = L"controller:";
constexpr wchar_t kAbsolutePath[] = L"an absolute path";

constexpr Setting kSettings[] = {
    {L"mechanism",
     L"file or events",
     false,
     NumberForm{ETWLogging::kMechanismSetting, &ParseMechanism, &FormatMechanism}},
    {L"level",
     L"a number from 1 to 6",
     true,
     NumberForm{ETWLogging::kLevelSetting, &ParseDecimal, &FormatDecimal}},
    {L"fields",
     L"some of tag, process, source and function, joined by commas, or all or none",
     true,
     NumberForm{ETWLogging::kOptionsSetting, &ParseFields, &FormatFields}},
    {L"entries",
     L"how many a file takes, at most 100000000, or 0 for any number",
     true,
     NumberForm{ETWLogging::kEntriesSetting, &ParseDecimal, &FormatDecimal}},
    {L"old-files",
     L"a number up to 99",
     true,
     NumberForm{ETWLogging::kOldFilesSetting, &ParseDecimal, &FormatDecimal}},
    {L"mutex", L"on or off", false, NumberForm{ETWLogging::kMutexSetting, &ParseSwitch, &FormatSwitch}},
    {L"tag",
     L"a text without $",
     false,
     TextForm{
         ETWLogging::kTagSetting,
         &SameText,
         [] { return ETWLogging::DefaultLogTag(Contract::kHostProgram); }}},
    // As the services' environment has it, which is not always that of this program.
    {L"folder",
     kAbsolutePath,
     false,
     TextForm{
         ETWLogging::kFolderSetting,
         &NormalPath,
         [] { return std::wstring(L"%ProgramData%\\Tarvex\\Log"); }}},
    {L"file",
     L"a file name with an extension",
     false,
     TextForm{
         ETWLogging::kFileSetting,
         &SameText,
         [] { return ETWLogging::DefaultLogFileName(ETWLogging::kHostLogGroup); }}},
    {kControllerName,
     kAbsolutePath,
     false,
     TextForm{
         {ETWLogging::kControllerPathPrefix, &ETWLogging::IsAbsolutePath},
         &NormalPath,
         [] { return std::wstring(L"(searched for)"); }}},
};

/// A setting, and the application whose controller it is about.
struct Found
{
    const Setting& setting;
    std::wstring application;

    /// In the registry and in the file.
    [[nodiscard]] std::wstring ValueName() const
    {
        const auto* const number = std::get_if<NumberForm>(&setting.form);
        return (number != nullptr ? number->setting.name : std::get<TextForm>(setting.form).setting.name) +
               application;
    }
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
    if (found == std::end(kSettings) || (found->name == kControllerName && !isController))
    {
        ThrowUsage(
            L"'" + name +
            L"' is no logging setting: give mechanism, level, fields, entries, old-files, "
            L"mutex, tag, folder, file or controller:APPLICATION");
    }
    return {*found, isController ? name.substr(kPrefix) : std::wstring()};
}

/// What is stored.
using Value = std::variant<DWORD, std::wstring>;

Value ValueFrom(const Setting& setting, const std::wstring& given)
{
    if (const auto* const form = std::get_if<NumberForm>(&setting.form))
    {
        const std::optional<DWORD> number = form->parse(given);
        if (number && form->setting.IsValid(*number))
        {
            return *number;
        }
    }
    else
    {
        const auto& textForm = std::get<TextForm>(setting.form);
        std::wstring text = textForm.normal(given);
        if (textForm.setting.isValid(text))
        {
            return text;
        }
    }
    ThrowUsage(L"'" + given + L"' is no value for '" + setting.name + L"': give " + setting.expected);
}

} // namespace

std::wstring OriginName(ETWLogging::LogSettingOrigin origin)
{
    switch (origin)
    {
    case ETWLogging::LogSettingOrigin::IniFile:
        return ETWLogging::kLogIniName;
    case ETWLogging::LogSettingOrigin::Registry:
        return L"registry";
    case ETWLogging::LogSettingOrigin::Default:
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
    names.back() += ETWLogging::kHostApplication; // The last is about an application's controller.
    return names;
}

bool CLogStore::TakesEffectAtOnce(const std::wstring& name)
{
    return Find(name).setting.atOnce;
}

ETWLogging::LogSettings CLogStore::Settings() const
{
    return ETWLogging::ReadLogSettings(ETWLogging::CLogSettingsReader(m_iniPath, kSettingsPath.c_str()));
}

LogSettingReport CLogStore::Get(const std::wstring& name) const
{
    const Found found = Find(name);
    ETWLogging::CLogSettingsReader reader(m_iniPath, kSettingsPath.c_str());
    LogSettingReport report{name, {}, {}, {}};
    if (const auto* const form = std::get_if<NumberForm>(&found.setting.form))
    {
        DWORD number = 0;
        report.origin = reader.ReadNumber(form->setting, number);
        report.value = form->format(number);
    }
    else
    {
        const auto& textForm = std::get<TextForm>(found.setting.form);
        report.value = textForm.fallback();
        report.origin = found.application.empty()
                            ? reader.ReadText(textForm.setting, report.value)
                            : reader.ReadControllerPath(found.application, report.value);
    }
    report.unusable = reader.Problems();
    return report;
}

const std::wstring& CLogStore::KeyPath()
{
    return kSettingsPath;
}

std::wstring CLogStore::ValueName(const std::wstring& name)
{
    return Find(name).ValueName();
}

std::optional<std::wstring> CLogStore::Stored(const std::wstring& name)
{
    const Found found = Find(name);
    const std::wstring valueName = found.ValueName();
    Basalt::CObfuscatedRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ) != ERROR_SUCCESS)
    {
        return std::nullopt;
    }
    if (const auto* const form = std::get_if<NumberForm>(&found.setting.form))
    {
        DWORD number = 0;
        const bool isUsable =
            key.ReadDword(valueName.c_str(), number) == ERROR_SUCCESS && form->setting.IsValid(number);
        return isUsable ? std::optional(form->format(number)) : std::nullopt;
    }
    std::wstring text;
    const bool isUsable = key.ReadString(valueName.c_str(), text) == ERROR_SUCCESS &&
                          std::get<TextForm>(found.setting.form).setting.isValid(text);
    return isUsable ? std::optional(text) : std::nullopt;
}

void CLogStore::TakeDefaultFolder() const
{
    const std::wstring configured = Settings().folder;
    if (configured.empty() || TxSdk::IsDefaultLogFolder(configured))
    {
        const std::wstring folder = TxSdk::DefaultLogFolder();
        CheckStatus(TxSdk::TakeLogFolder(folder), L"use log folder", folder);
    }
}

void CLogStore::Check(const std::wstring& name, const std::wstring& value) const
{
    static_cast<void>(ValueFrom(Find(name).setting, value));
}

void CLogStore::Set(const std::wstring& name, const std::wstring& value) const
{
    const Found found = Find(name);
    const Value stored = ValueFrom(found.setting, value);
    const std::wstring valueName = found.ValueName();
    Basalt::CObfuscatedRegKey key;
    CheckStatus(
        key.Create(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ | KEY_WRITE),
        L"open registry key",
        kSettingsPath);
    const auto* const number = std::get_if<DWORD>(&stored);
    const DWORD status = number != nullptr
                             ? key.WriteDword(valueName.c_str(), *number)
                             : key.WriteString(valueName.c_str(), std::get<std::wstring>(stored));
    CheckStatus(status, L"write registry value", kSettingsPath + L"\\" + valueName);
}

bool CLogStore::Unset(const std::wstring& name) const
{
    const std::wstring valueName = Find(name).ValueName();
    Basalt::CObfuscatedRegKey key;
    DWORD status = key.Open(HKEY_LOCAL_MACHINE, kSettingsPath.c_str(), KEY_READ | KEY_WRITE);
    if (status == ERROR_SUCCESS)
    {
        status = key.DeleteValue(valueName.c_str());
    }
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return false;
    }
    CheckStatus(status, L"delete registry value", kSettingsPath + L"\\" + valueName);
    return true;
}

} // namespace TxCtl
