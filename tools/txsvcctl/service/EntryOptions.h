#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// What the service manager does when a service fails, time after time.
struct Recovery
{
    DWORD resetSeconds = 0; ///< without a failure, after which it begins anew
    std::wstring rebootMessage;
    std::wstring command;
    std::vector<SC_ACTION> actions;
};

/// A restart after 5 s, 30 s and 5 min.
[[nodiscard]] Recovery RestartAfterFailures();
[[nodiscard]] Recovery NoRecovery();

/// What an entry of the service manager can have beside its command line. What is absent stays as it is.
struct EntryOptions
{
    std::optional<std::wstring> description;
    std::optional<std::vector<std::wstring>> dependencies; ///< Services that must run first; empty for none.
    std::optional<std::wstring> account; ///< "LocalSystem", "NT AUTHORITY\\LocalService", ...
    std::optional<bool> isDelayed;       ///< Automatic start after the others.
    std::optional<DWORD> sidType;        ///< SERVICE_SID_TYPE_...
    std::optional<DWORD> preshutdownMs;
    std::optional<Recovery> recovery;
    std::optional<bool> recoversFromErrors; ///< Also when it stops with an error.

    /// Whether the user asked for the recovery; otherwise nothing is said when the system does not know it.
    bool isRecoveryAsked = false;
};

/// All that an entry has; what this system does not know is absent.
/// @throws CToolError
[[nodiscard]] EntryOptions ReadEntryOptions(const std::wstring& service);

/// An account whose password the service manager does not need: built in, virtual, or managed.
[[nodiscard]] bool NeedsNoPassword(const std::wstring& account);

/// Changes an entry and reads back what has become of it. What the system does not keep is a note, no
/// failure: the service runs without it.
/// @param password for the account; empty where it needs none.
/// @throws CToolError when the account or the dependencies are refused.
/// @see https://learn.microsoft.com/windows/win32/api/winsvc/nf-winsvc-changeserviceconfig2w
void ApplyEntryOptions(
    const std::wstring& service,
    const EntryOptions& options,
    const std::wstring& password,
    IConsole& console);

/// One line from standard input, which a console does not echo; nothing when there is none.
[[nodiscard]] std::optional<std::wstring> ReadPassword(const std::wstring& account, IConsole& console);

} // namespace TxCtl
