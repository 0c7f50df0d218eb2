#include "txsvcctl/service/EntryOptions.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kOperation[] = L"change service";

Basalt::CServiceHandle Open(const std::wstring& name, DWORD access, const wchar_t* operation)
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    Basalt::CServiceHandle service(::OpenServiceW(manager.Get(), name.c_str(), access));
    if (!service)
    {
        ThrowFailure(operation, name, ::GetLastError());
    }
    return service;
}

std::wstring TextOf(const wchar_t* text)
{
    return text == nullptr ? L"" : text;
}

/// What the system has of one kind, with the texts behind it; nothing when it does not know that kind.
template <typename Info>
class CInfo
{
public:
    CInfo(SC_HANDLE service, DWORD level)
    {
        DWORD needed = 0;
        ::QueryServiceConfig2W(service, level, nullptr, 0, &needed);
        m_buffer.resize(needed / sizeof(Info) + 1);
        const auto size = static_cast<DWORD>(m_buffer.size() * sizeof(Info));
        auto* const bytes = reinterpret_cast<BYTE*>(m_buffer.data());
        m_isKnown = ::QueryServiceConfig2W(service, level, bytes, size, &needed) != FALSE;
    }

    [[nodiscard]] explicit operator bool() const noexcept { return m_isKnown; }
    [[nodiscard]] const Info* operator->() const noexcept { return m_buffer.data(); }
    [[nodiscard]] const Info& operator*() const noexcept { return m_buffer.front(); }

private:
    std::vector<Info> m_buffer;
    bool m_isKnown;
};

/// One entry, open for a change of its options.
class CEntry
{
public:
    CEntry(const std::wstring& name, IConsole& console)
        : m_service(Open(name, SERVICE_CHANGE_CONFIG | SERVICE_QUERY_CONFIG | SERVICE_START, kOperation)),
          m_console(console)
    {
    }

    [[nodiscard]] SC_HANDLE Get() const noexcept { return m_service.Get(); }

    /// @param isKept from what the system then has: whether that is what was set.
    template <typename Info, typename IsKept>
    void Set(DWORD level, Info info, const wchar_t* what, IsKept isKept) const
    {
        const bool isSet = ::ChangeServiceConfig2W(Get(), level, &info) != FALSE;
        const CInfo<Info> kept(Get(), level);
        if ((!isSet || !kept || !isKept(*kept)) && what != nullptr)
        {
            m_console.Note(std::wstring(L"this system does not keep ") + what);
        }
    }

private:
    Basalt::CServiceHandle m_service;
    IConsole& m_console;
};

/// Names one after the other, each with its terminator, and one more.
std::wstring MultiText(const std::vector<std::wstring>& names)
{
    std::wstring text;
    for (const std::wstring& name : names)
    {
        text += name + L'\0';
    }
    return text + L'\0';
}

void SetBasics(
    const CEntry& entry,
    const std::wstring& service,
    const EntryOptions& options,
    const std::wstring& password)
{
    const std::wstring dependencies = MultiText(options.dependencies.value_or(std::vector<std::wstring>()));
    if ((options.dependencies || options.account) &&
        !::ChangeServiceConfigW(
            entry.Get(),
            SERVICE_NO_CHANGE,
            SERVICE_NO_CHANGE,
            SERVICE_NO_CHANGE,
            nullptr,
            nullptr,
            nullptr,
            options.dependencies ? dependencies.c_str() : nullptr,
            options.account ? options.account->c_str() : nullptr,
            options.account ? password.c_str() : nullptr,
            nullptr))
    {
        ThrowFailure(kOperation, service, ::GetLastError());
    }
}

void SetDescription(const CEntry& entry, std::wstring text)
{
    entry.Set(
        SERVICE_CONFIG_DESCRIPTION,
        SERVICE_DESCRIPTIONW{text.data()},
        L"descriptions",
        [&text](const SERVICE_DESCRIPTIONW& info) { return text == TextOf(info.lpDescription); });
}

void SetRecovery(const CEntry& entry, Recovery recovery, bool isAsked)
{
    SERVICE_FAILURE_ACTIONSW all{};
    all.dwResetPeriod = recovery.resetSeconds;
    all.lpRebootMsg = recovery.rebootMessage.data();
    all.lpCommand = recovery.command.data();
    all.cActions = static_cast<DWORD>(recovery.actions.size());
    recovery.actions.reserve(1); // With a null pointer the old ones would stay.
    all.lpsaActions = recovery.actions.data();
    entry.Set(
        SERVICE_CONFIG_FAILURE_ACTIONS,
        all,
        isAsked ? L"recovery actions" : nullptr,
        [&all](const SERVICE_FAILURE_ACTIONSW& info) {
            return info.cActions == all.cActions &&
                   (info.cActions == 0 || info.lpsaActions[0].Type == all.lpsaActions[0].Type);
        });
}

void SetRecoveryFromErrors(const CEntry& entry, bool isOn, bool isAsked)
{
    entry.Set(
        SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
        SERVICE_FAILURE_ACTIONS_FLAG{isOn},
        isAsked ? L"recovery from an end with an error" : nullptr,
        [isOn](const SERVICE_FAILURE_ACTIONS_FLAG& info) {
            return (info.fFailureActionsOnNonCrashFailures != FALSE) == isOn;
        });
}

std::vector<std::wstring> NamesOf(const wchar_t* multiText)
{
    std::vector<std::wstring> names;
    for (const wchar_t* at = multiText; at != nullptr && *at != L'\0'; at += names.back().size() + 1)
    {
        names.emplace_back(at);
    }
    return names;
}

/// Wine's service manager keeps them, but tells nobody: they stand in its database only.
std::vector<std::wstring> StoredDependencies(const std::wstring& service)
{
    const std::wstring path = L"System\\CurrentControlSet\\Services\\" + service;
    Basalt::CRegKey key;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS ||
        key.ReadValue(L"DependOnService", type, data) != ERROR_SUCCESS || type != REG_MULTI_SZ)
    {
        return {};
    }
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    return NamesOf(text.c_str());
}

/// Account and dependencies.
void ReadBasics(SC_HANDLE service, const std::wstring& name, EntryOptions& options)
{
    DWORD needed = 0;
    ::QueryServiceConfigW(service, nullptr, 0, &needed);
    std::vector<QUERY_SERVICE_CONFIGW> buffer(needed / sizeof(QUERY_SERVICE_CONFIGW) + 1);
    const auto size = static_cast<DWORD>(buffer.size() * sizeof(QUERY_SERVICE_CONFIGW));
    if (!::QueryServiceConfigW(service, buffer.data(), size, &needed))
    {
        ThrowFailure(L"read the entry of service", name, ::GetLastError());
    }
    options.account = TextOf(buffer.front().lpServiceStartName);
    options.dependencies = NamesOf(buffer.front().lpDependencies);
    if (options.dependencies->empty())
    {
        options.dependencies = StoredDependencies(name);
    }
}

} // namespace

Recovery RestartAfterFailures()
{
    constexpr DWORD kForgetSeconds = 24 * 60 * 60;
    return {
        kForgetSeconds,
        {},
        {},
        {{SC_ACTION_RESTART, 5'000}, {SC_ACTION_RESTART, 30'000}, {SC_ACTION_RESTART, 300'000}}};
}

Recovery NoRecovery()
{
    return {0, {}, {}, {{SC_ACTION_NONE, 0}}};
}

EntryOptions ReadEntryOptions(const std::wstring& service)
{
    const Basalt::CServiceHandle handle = Open(service, SERVICE_QUERY_CONFIG, L"open service");
    SC_HANDLE const entry = handle.Get();
    EntryOptions options;
    ReadBasics(entry, service, options);
    if (const CInfo<SERVICE_DESCRIPTIONW> info(entry, SERVICE_CONFIG_DESCRIPTION); info)
    {
        options.description = TextOf(info->lpDescription);
    }
    if (const CInfo<SERVICE_DELAYED_AUTO_START_INFO> info(entry, SERVICE_CONFIG_DELAYED_AUTO_START_INFO);
        info)
    {
        options.isDelayed = info->fDelayedAutostart != FALSE;
    }
    if (const CInfo<SERVICE_SID_INFO> info(entry, SERVICE_CONFIG_SERVICE_SID_INFO); info)
    {
        options.sidType = info->dwServiceSidType;
    }
    if (const CInfo<SERVICE_PRESHUTDOWN_INFO> info(entry, SERVICE_CONFIG_PRESHUTDOWN_INFO); info)
    {
        options.preshutdownMs = info->dwPreshutdownTimeout;
    }
    if (const CInfo<SERVICE_FAILURE_ACTIONSW> info(entry, SERVICE_CONFIG_FAILURE_ACTIONS); info)
    {
        options.recovery = {
            info->dwResetPeriod,
            TextOf(info->lpRebootMsg),
            TextOf(info->lpCommand),
            {info->lpsaActions, info->lpsaActions + info->cActions}};
    }
    if (const CInfo<SERVICE_FAILURE_ACTIONS_FLAG> info(entry, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG); info)
    {
        options.recoversFromErrors = info->fFailureActionsOnNonCrashFailures != FALSE;
    }
    return options;
}

bool NeedsNoPassword(const std::wstring& account)
{
    for (const std::wstring_view prefix : {L"NT AUTHORITY\\", L"NT SERVICE\\"})
    {
        if (IsSameName(account.substr(0, prefix.size()), std::wstring(prefix)))
        {
            return true;
        }
    }
    return IsSameName(account, L"LocalSystem") || account.ends_with(L'$');
}

void ApplyEntryOptions(
    const std::wstring& service, const EntryOptions& options, const std::wstring& password, IConsole& console)
{
    const CEntry entry(service, console);
    SetBasics(entry, service, options, password);
    if (options.description)
    {
        SetDescription(entry, *options.description);
    }
    if (options.isDelayed)
    {
        entry.Set(
            SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
            SERVICE_DELAYED_AUTO_START_INFO{*options.isDelayed},
            *options.isDelayed ? L"delayed starts" : nullptr, // A system without them has none to end.
            [&options](const SERVICE_DELAYED_AUTO_START_INFO& info) {
                return (info.fDelayedAutostart != FALSE) == *options.isDelayed;
            });
    }
    if (options.sidType)
    {
        entry.Set(
            SERVICE_CONFIG_SERVICE_SID_INFO,
            SERVICE_SID_INFO{*options.sidType},
            L"SID types",
            [&options](const SERVICE_SID_INFO& info) { return info.dwServiceSidType == *options.sidType; });
    }
    if (options.preshutdownMs)
    {
        const DWORD milliseconds = *options.preshutdownMs;
        entry.Set(
            SERVICE_CONFIG_PRESHUTDOWN_INFO,
            SERVICE_PRESHUTDOWN_INFO{milliseconds},
            L"pre-shutdown limits",
            [milliseconds](const SERVICE_PRESHUTDOWN_INFO& info) {
                return info.dwPreshutdownTimeout == milliseconds;
            });
    }
    if (options.recovery)
    {
        SetRecovery(entry, *options.recovery, options.isRecoveryAsked);
    }
    if (options.recoversFromErrors)
    {
        SetRecoveryFromErrors(entry, *options.recoversFromErrors, options.isRecoveryAsked);
    }
}

std::optional<std::wstring> ReadPassword(const std::wstring& account, IConsole& console)
{
    HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    const bool isConsole = ::GetConsoleMode(input, &mode) != FALSE;
    if (isConsole)
    {
        console.Error(L"Password of " + account + L":");
        ::SetConsoleMode(input, mode & ~DWORD{ENABLE_ECHO_INPUT});
    }
    std::string line;
    char character = 0;
    DWORD read = 0;
    while (::ReadFile(input, &character, 1, &read, nullptr) && read == 1 && character != '\n')
    {
        line += character;
    }
    if (isConsole)
    {
        ::SetConsoleMode(input, mode);
    }
    line.erase(line.find_last_not_of('\r') + 1);
    return line.empty() ? std::nullopt : std::optional(FromUtf8(line));
}

} // namespace TxCtl
