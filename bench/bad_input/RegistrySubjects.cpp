/// @file
/// What stands in the registry and in "log.ini": scrambled values, the host's configuration, log settings.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>

#include "Campaign.h"
#include "base/ObfuscatedRegKey.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "config/TxSvcHostConfig.h"
#include "contract/HostSettings.h"
#include "contract/Keys.h"
#include "contract/LogSettings.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/log/LogStore.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kScrambledKey[] = L"Software\\TxBadInput\\Scrambled";
constexpr wchar_t kKey[] = L"Software\\TxBadInput\\Log";

class CScrambledValues final : public ISubject
{
public:
    const char* Name() const noexcept override { return "scrambled values"; }
    unsigned Share() const noexcept override { return 40; }

    void Try(CDecisions input) override
    {
        const std::wstring name = input.Text(12, L"");
        const bool isNumber = input.Flag();
        const DWORD number = input.Number();
        const std::wstring text = input.Text(40);
        Require(
            (isNumber ? m_scrambled.WriteDword(name.c_str(), number)
                      : m_scrambled.WriteString(name.c_str(), text)) == 0,
            "a value is not written");
        Require(read(name, isNumber, number, text) == ERROR_SUCCESS, "a written value is not read");
        Require(
            read(name, !isNumber, number, text) == ERROR_DATATYPE_MISMATCH,
            "a value is read as another type");
        damage(name, input);
        const DWORD damaged = read(name, isNumber, number, text);
        Require(
            damaged == ERROR_SUCCESS || damaged == ERROR_INVALID_DATA || damaged == ERROR_DATATYPE_MISMATCH,
            "a damaged value has an odd error");
        static_cast<void>(m_plain.DeleteValue(name.c_str()));
    }

private:
    void damage(const std::wstring& name, CDecisions& input)
    {
        DWORD type = 0;
        std::vector<BYTE> stored;
        Require(m_plain.ReadValue(name.c_str(), type, stored) == ERROR_SUCCESS, "a value is gone");
        const std::wstring copy = name + L"x";
        static_cast<void>(
            m_plain.WriteValue(copy.c_str(), type, stored.data(), static_cast<DWORD>(stored.size())));
        DWORD number = 0;
        std::wstring text;
        Require(
            m_scrambled.ReadDword(copy.c_str(), number) != ERROR_SUCCESS &&
                m_scrambled.ReadString(copy.c_str(), text) != ERROR_SUCCESS,
            "a value is read under another name");
        static_cast<void>(m_plain.DeleteValue(copy.c_str()));
        for (std::size_t changes = input.Below(4); changes != 0; --changes)
        {
            stored[input.Number() % stored.size()] ^= input.Byte();
        }
        stored.resize(stored.size() - std::min(stored.size(), input.Below(8)));
        const std::string_view more = input.Rest();
        stored.insert(stored.end(), more.begin(), more.end());
        static_cast<void>(m_plain.WriteValue(
            name.c_str(),
            input.Flag() ? REG_SZ : REG_BINARY,
            stored.data(),
            static_cast<DWORD>(stored.size())));
    }

    /// What is read must be what was written.
    DWORD read(const std::wstring& name, bool isNumber, DWORD number, const std::wstring& text) const
    {
        DWORD readNumber = 0;
        std::wstring readText;
        const DWORD status = isNumber ? m_scrambled.ReadDword(name.c_str(), readNumber)
                                      : m_scrambled.ReadString(name.c_str(), readText);
        Require(
            status != ERROR_SUCCESS || (isNumber ? readNumber == number : readText == text),
            "a value is read as something else");
        return status;
    }

    CTestKey m_key{HKEY_LOCAL_MACHINE, kScrambledKey};
    Basalt::CRegKey& m_plain = m_key.Key();
    Basalt::CObfuscatedRegKey m_scrambled = [] {
        Basalt::CObfuscatedRegKey key;
        static_cast<void>(key.Open(HKEY_LOCAL_MACHINE, kScrambledKey, KEY_ALL_ACCESS));
        return key;
    }();
};

/// A value as it stands in the registry.
struct Stored
{
    DWORD type = REG_NONE;
    std::vector<BYTE> data;

    [[nodiscard]] std::optional<DWORD> AsNumber() const
    {
        DWORD number = 0;
        if (type != REG_DWORD || data.size() > sizeof(number))
        {
            return std::nullopt;
        }
        std::memcpy(&number, data.data(), data.size()); // The registry takes any size; zeros fill it up.
        return number;
    }
    [[nodiscard]] std::optional<std::wstring> AsText() const
    {
        if (type != REG_SZ)
        {
            return std::nullopt;
        }
        std::wstring text(data.size() / sizeof(wchar_t), L'\0');
        std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
        return text.substr(0, text.find(L'\0'));
    }
};
using Values = std::map<std::wstring, Stored>;

/// The group's configuration: whatever stands there, what applies is the value in its range or the default.
class CHostConfiguration final : public ISubject
{
public:
    const char* Name() const noexcept override { return "host configuration"; }
    unsigned Share() const noexcept override { return 20; }

    void Try(CDecisions input) override
    {
        constexpr wchar_t kGroup[] = L"TxBadInput";
        CTestKey root(HKEY_LOCAL_MACHINE, Contract::kHostKey);
        Basalt::CRegKey group, exclusions;
        Require(
            group.Create(root.Key().Get(), kGroup, KEY_ALL_ACCESS) == 0 &&
                exclusions.Create(group.Get(), Contract::kOobeExclusionKey, KEY_ALL_ACCESS) == 0,
            "no key");
        Values values, groupValues, others;
        for (const Contract::WorkingSetSetting& setting : Contract::kWorkingSetSettings)
        {
            putNumber(root.Key(), setting, input, values);
        }
        putNumber(root.Key(), Contract::kBucketRange, input, values);
        putNumber(root.Key(), Contract::kOccurrenceCount, input, values);
        putNumber(root.Key(), Contract::kIdleWaitTime, input, values);
        putNumber(root.Key(), Contract::kForceSerialLoads, input, values);
        Contract::HostSetting misspelt = Contract::kOccurrenceCount;
        misspelt.name = Contract::kMisspeltOccurrenceCount;
        putNumber(root.Key(), misspelt, input, values);
        putNumber(group, {Contract::kBucketLimitValue, 0, MAXDWORD, 0}, input, groupValues);
        const std::wstring service = L"s" + input.Text(8, L"");
        putText(group, L"", input, groupValues);
        putText(group, service, input, groupValues);
        putText(exclusions, input.Text(20, L""), input, others);
        check(kGroup, service, values, groupValues);
        CTxSvcHostConfig::ReleaseInstance();
    }

private:
    static void put(Basalt::CRegKey& key, const std::wstring& name, Stored stored, Values& values)
    {
        Require(
            key.WriteValue(
                name.c_str(), stored.type, stored.data.data(), static_cast<DWORD>(stored.data.size())) == 0,
            "a value is not written");
        values[name] = std::move(stored);
    }

    static Stored any(CDecisions& input)
    {
        Stored stored{
            input.Pick<DWORD>(
                {REG_NONE,
                 REG_SZ,
                 REG_BINARY,
                 REG_DWORD,
                 REG_DWORD_BIG_ENDIAN,
                 REG_LINK,
                 REG_MULTI_SZ,
                 REG_QWORD,
                 77}),
            {}};
        for (std::size_t left = input.Below(16) == 0 ? 1030 : input.Below(20); left != 0; --left)
        {
            stored.data.push_back(input.Byte());
        }
        return stored;
    }

    static void putNumber(
        Basalt::CRegKey& key, const Contract::HostSetting& setting, CDecisions& input, Values& values)
    {
        const std::size_t kind = input.Below(6);
        Stored stored{REG_DWORD, std::vector<BYTE>(sizeof(DWORD))};
        const DWORD number = input.EdgyNumber(setting.minimum, setting.maximum);
        std::memcpy(stored.data.data(), &number, sizeof(number));
        if (kind != 0)
        {
            put(key, setting.name, kind == 1 ? any(input) : stored, values);
        }
    }

    static void putText(Basalt::CRegKey& key, const std::wstring& name, CDecisions& input, Values& values)
    {
        const std::size_t kind = input.Below(6);
        const std::wstring text = input.Text(60);
        Stored stored{REG_SZ, std::vector<BYTE>((text.size() + input.Below(2)) * sizeof(wchar_t))};
        std::memcpy(stored.data.data(), text.data(), text.size() * sizeof(wchar_t));
        if (kind != 0)
        {
            put(key, name, kind == 1 ? any(input) : stored, values);
        }
    }

    static DWORD expected(const Values& values, const Contract::HostSetting& setting, const wchar_t* name)
    {
        const auto found = values.find(name);
        const std::optional<DWORD> number = found == values.end() ? std::nullopt : found->second.AsNumber();
        return number && *number >= setting.minimum && *number <= setting.maximum ? *number
                                                                                  : setting.fallback;
    }

    static void check(
        const wchar_t* groupName,
        const std::wstring& service,
        const Values& values,
        const Values& groupValues)
    {
        CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
        WorkingSetRecord record{};
        Require(config.Init(groupName) && config.GetWorkingSetRecord(record), "a configuration is not read");
        for (const Contract::WorkingSetSetting& setting : Contract::kWorkingSetSettings)
        {
            Require(
                record.*setting.field == expected(values, setting, setting.name),
                "a setting is not what it should be");
        }
        const auto misspelt = values.find(Contract::kMisspeltOccurrenceCount);
        const bool isRenamed = misspelt != values.end() && misspelt->second.AsNumber();
        Require(
            record.dwOptimalOccuranceCount ==
                expected(
                    values,
                    Contract::kOccurrenceCount,
                    isRenamed ? Contract::kMisspeltOccurrenceCount : Contract::kOccurrenceCount.name),
            "the occurrence count is not what it should be");
        Require(
            record.dwBucketRange == expected(values, Contract::kBucketRange, Contract::kBucketRange.name),
            "the bucket range is not what it should be");
        Require(
            record.dwProcessIdleWaitTime ==
                expected(values, Contract::kIdleWaitTime, Contract::kIdleWaitTime.name),
            "the idle wait is not what it should be");
        Require(
            record.stOptimalBucketUpperLimit ==
                expected(groupValues, {L"", 0, MAXDWORD, 0}, Contract::kBucketLimitValue),
            "the band is not what it should be");
        Require(
            config.IsSerialLoad() ==
                (expected(values, Contract::kForceSerialLoads, Contract::kForceSerialLoads.name) == 1),
            "the order of loads is not what it should be");
        checkTexts(config, service, groupValues);
    }

    static void checkTexts(const CTxSvcHostConfig& config, const std::wstring& service, const Values& values)
    {
        const auto text = [&values](const std::wstring& name) {
            const auto found = values.find(name);
            return found == values.end() ? std::nullopt : found->second.AsText();
        };
        std::vector<std::wstring> services;
        Require(
            config.GetServices(services) == text(L"").has_value(), "a service list is read, or not, wrongly");
        Require(
            std::ranges::none_of(
                services,
                [](const std::wstring& name) {
                    return name.empty() || name.find_first_of(L";:,") != std::wstring::npos;
                }),
            "a service has no name");
        std::wstring clsid;
        Require(
            config.GetSvcCLSID(service, clsid) == text(service).has_value(),
            "a CLSID is read, or not, wrongly");
        Require(clsid == text(service).value_or(L""), "a CLSID is another one");
    }
};

constexpr const LogNumberSetting* kNumbers[] = {
    &kMechanismSetting,
    &kLevelSetting,
    &kOptionsSetting,
    &kEntriesSetting,
    &kOldFilesSetting,
    &kMutexSetting};
constexpr const LogTextSetting* kTexts[] = {&kTagSetting, &kFolderSetting, &kFileSetting};

/// Any bytes as "log.ini", and what stands there in the right form.
class CLogIni final : public ISubject
{
public:
    const char* Name() const noexcept override { return "log.ini"; }
    unsigned Share() const noexcept override { return 10; }
    std::vector<std::string> Seeds() const override
    {
        return {
            std::string("\0", 1),
            "\1[Logging]\r\nLogging Mechanism=1\r\nLogging Level=0x2\r\nLogging Options=44\r\nLogging "
            "Entries=5\r\n"
            "Logging Folder=C:\\log\r\nLogging File=a.log\r\nLogging Tag=tag\r\n"};
    }

    void Try(CDecisions input) override
    {
        if (input.Flag())
        {
            write(std::string(input.Rest()));
            static_cast<void>(checkedSettings());
            return;
        }
        tryWritten(input);
    }

private:
    void write(const std::string& bytes) const
    {
        const Basalt::CFile file(
            ::CreateFileW(m_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        Require(
            ::WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) !=
                FALSE,
            "log.ini is not written");
    }

    /// Whatever the file holds, each setting is one of those allowed, or the default.
    [[nodiscard]] LogSettings checkedSettings() const
    {
        CLogSettingsReader reader(m_path, kKey);
        for (const LogNumberSetting* const setting : kNumbers)
        {
            DWORD number = 77;
            const LogSettingOrigin origin = reader.ReadNumber(*setting, number);
            Require(setting->IsValid(number), "a number is none that is allowed");
            Require(
                origin != LogSettingOrigin::Default || number == setting->fallback,
                "a number is not the default");
        }
        for (const LogTextSetting* const setting : kTexts)
        {
            std::wstring text = L"as it was";
            const LogSettingOrigin origin = reader.ReadText(*setting, text);
            Require(
                origin == LogSettingOrigin::Default ? text == L"as it was" : setting->isValid(text),
                "a text is none that is allowed");
        }
        return ReadLogSettings(CLogSettingsReader(m_path, kKey));
    }

    void tryWritten(CDecisions& input) const
    {
        const bool isWide = input.Flag();
        std::wstring file = std::wstring(isWide ? L"\xFEFF" : L"") + L"[" + kLogIniSection + L"]\r\n";
        std::vector<DWORD> numbers;
        for (const LogNumberSetting* const setting : kNumbers)
        {
            const DWORD number = input.EdgyNumber(setting->least, setting->most);
            const bool isTooLarge = input.Below(8) == 1; // By 32 bits.
            wchar_t text[32] = {};
            ::_snwprintf(
                text,
                std::size(text) - 1,
                input.Flag() ? L"0x%I64x" : L"%I64u",
                number + (isTooLarge ? 0x100000000ULL : 0));
            file += std::wstring(setting->name) + L"=" + text + L"\r\n";
            numbers.push_back(setting->IsValid(number) && !isTooLarge ? number : setting->fallback);
        }
        const std::wstring tag = L"t" + input.Text(20, L"$\";") + L"t";
        file += std::wstring(kTagSetting.name) + L"=" + tag + L"\r\n";
        std::string bytes;
        for (const wchar_t character : file)
        {
            bytes += static_cast<char>(isWide || character < 0x80 ? character : '?');
            bytes += isWide ? std::string(1, static_cast<char>(character >> 8)) : "";
        }
        write(bytes);
        const LogSettings settings = checkedSettings();
        Require(
            settings.mechanism == numbers[0] && settings.threshold == numbers[1] &&
                settings.options == numbers[2] && settings.entriesPerFile == numbers[3] &&
                settings.oldFiles == numbers[4] && settings.useMutex == (numbers[5] != 0),
            "a number in log.ini is another one");
        std::wstring read = tag;
        std::ranges::replace_if(
            read, [isWide](wchar_t character) { return !isWide && character >= 0x80; }, L'?');
        Require(settings.tag == read, "a text in log.ini is another one");
    }

    CTestFolder m_folder;
    std::wstring m_path = m_folder.File(L"log.ini");
    CTestKey m_key{HKEY_LOCAL_MACHINE, kKey};
};

/// The tool's log settings: what it shows can be given to it, and means the same.
class CLogStoreSettings final : public ISubject
{
public:
    const char* Name() const noexcept override { return "log settings"; }
    unsigned Share() const noexcept override { return 10; }
    std::vector<std::string> Seeds() const override
    {
        return {std::string("\2\1", 2) + "process,source", std::string("\7\1", 2) + "C:\\a\\b"};
    }

    void Try(CDecisions input) override
    {
        constexpr const wchar_t* kValues[] = {
            L"file", L"events", L"on", L"off", L"all", L"none", L"tag,process"};
        const std::vector<std::wstring> names = TxCtl::CLogStore::Names();
        const std::wstring name = input.Flag() ? input.Text(20) : names[input.Below(names.size())];
        const bool isKnown = input.Flag();
        const std::wstring value = isKnown ? kValues[input.Below(std::size(kValues))] : input.Text(200);
        try
        {
            m_store.Set(name, value);
        }
        catch (const TxCtl::CToolError& error)
        {
            Require(error.Code() == TxCtl::ExitCode::Usage, "a setting that is refused is not called wrong");
            return;
        }
        const TxCtl::LogSettingReport first = m_store.Get(name);
        Require(
            first.origin == LogSettingOrigin::Registry && first.unusable.empty(),
            "a setting that was made cannot be used");
        m_store.Set(name, first.value);
        Require(m_store.Get(name).value == first.value, "a setting that is shown means something else");
        Require(m_store.Unset(name), "a setting cannot be taken back");
    }

private:
    CTestFolder m_folder;
    CTestKey m_key{HKEY_LOCAL_MACHINE, Contract::In32BitView(Contract::kLoggingKey)};
    TxCtl::CLogStore m_store{m_folder.File(L"log.ini")};
};

} // namespace

void AddRegistrySubjects(Subjects& subjects)
{
    subjects.push_back(std::make_unique<CScrambledValues>());
    subjects.push_back(std::make_unique<CHostConfiguration>());
    subjects.push_back(std::make_unique<CLogIni>());
    subjects.push_back(std::make_unique<CLogStoreSettings>());
}
