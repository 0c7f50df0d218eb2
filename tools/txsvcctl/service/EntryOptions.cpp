#include "txsvcctl/service/EntryOptions.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include "base/Owned.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kOperation[] = L"change service";

/// One entry, open for a change of its options.
class CEntry
{
public:
    CEntry(const std::wstring& name, IConsole& console)
        : m_manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
          m_service(::OpenServiceW(
              m_manager.Get(), name.c_str(), SERVICE_CHANGE_CONFIG | SERVICE_QUERY_CONFIG | SERVICE_START)),
          m_console(console)
    {
        if (!m_service)
        {
            ThrowFailure(kOperation, name, ::GetLastError());
        }
    }

    [[nodiscard]] SC_HANDLE Get() const noexcept { return m_service.Get(); }

    /// @param isKept from what the system then has: whether that is what was set.
    template <typename Info, typename IsKept>
    void Set(DWORD level, Info info, const wchar_t* what, IsKept isKept) const
    {
        DWORD needed = 0;
        const bool isSet = ::ChangeServiceConfig2W(Get(), level, &info) != FALSE;
        ::QueryServiceConfig2W(Get(), level, nullptr, 0, &needed);
        std::vector<BYTE> buffer(needed + sizeof(Info));
        const bool isRead =
            ::QueryServiceConfig2W(Get(), level, buffer.data(), static_cast<DWORD>(buffer.size()), &needed) !=
            FALSE;
        if ((!isSet || !isRead || !isKept(*reinterpret_cast<const Info*>(buffer.data()))) && what != nullptr)
        {
            m_console.Error(std::wstring(L"note: this system does not keep ") + what);
        }
    }

private:
    Basalt::CServiceHandle m_manager;
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
        [&text](const SERVICE_DESCRIPTIONW& info) {
            return text == (info.lpDescription == nullptr ? L"" : info.lpDescription);
        });
}

void SetRestarts(const CEntry& entry, bool isOn, bool isAsked)
{
    constexpr DWORD kForgetSeconds = 24 * 60 * 60;
    constexpr SC_ACTION kRestart[] = {
        {SC_ACTION_RESTART, 5'000}, {SC_ACTION_RESTART, 30'000}, {SC_ACTION_RESTART, 300'000}};
    constexpr SC_ACTION kNothing[] = {{SC_ACTION_NONE, 0}};
    SC_ACTION actions[std::size(kRestart)] = {};
    std::memcpy(actions, isOn ? kRestart : kNothing, isOn ? sizeof(kRestart) : sizeof(kNothing));
    SERVICE_FAILURE_ACTIONSW all{};
    all.dwResetPeriod = kForgetSeconds;
    all.cActions = isOn ? static_cast<DWORD>(std::size(kRestart)) : 1;
    all.lpsaActions = actions;
    const wchar_t* const what = isAsked ? L"recovery actions" : nullptr;
    entry.Set(SERVICE_CONFIG_FAILURE_ACTIONS, all, what, [&all](const SERVICE_FAILURE_ACTIONSW& info) {
        return info.cActions == all.cActions && info.lpsaActions[0].Type == all.lpsaActions[0].Type;
    });
    entry.Set(
        SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
        SERVICE_FAILURE_ACTIONS_FLAG{isOn},
        isAsked ? L"recovery from an end with an error" : nullptr,
        [isOn](const SERVICE_FAILURE_ACTIONS_FLAG& info) {
            return (info.fFailureActionsOnNonCrashFailures != FALSE) == isOn;
        });
}

} // namespace

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
    if (options.preshutdownSeconds)
    {
        const DWORD milliseconds = *options.preshutdownSeconds * 1000;
        entry.Set(
            SERVICE_CONFIG_PRESHUTDOWN_INFO,
            SERVICE_PRESHUTDOWN_INFO{milliseconds},
            L"pre-shutdown limits",
            [milliseconds](const SERVICE_PRESHUTDOWN_INFO& info) {
                return info.dwPreshutdownTimeout == milliseconds;
            });
    }
    if (options.isRestarted)
    {
        SetRestarts(entry, *options.isRestarted, options.isRestartAsked);
    }
}

std::wstring ReadPassword(const std::wstring& account, IConsole& console)
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
    if (line.empty())
    {
        ThrowUsage(L"the account '" + account + L"' needs a password on standard input");
    }
    return FromUtf8(line);
}

} // namespace TxCtl
