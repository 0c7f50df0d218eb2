#pragma once

#include <windows.h>

#include <memory>

/// Enables four privileges in the process's token for its scope; code that display drivers bring into the
/// process wants them. The end of the scope, also by an exception, puts every privilege of the token back to
/// the state that it had before.
///
/// Failures are logged and swallowed: the host runs with the privileges that it got.
/// Threads: make and destroy it on the main thread. The token is the process's, all threads see the change.
/// @see
/// https://learn.microsoft.com/windows/win32/api/securitybaseapi/nf-securitybaseapi-adjusttokenprivileges
class CNvidiaDriverFix
{
public:
    /// Saves the token's privileges and enables the four.
    /// @param apply false only saves, so that the end of the scope changes nothing.
    explicit CNvidiaDriverFix(bool apply) noexcept;
    ~CNvidiaDriverFix();
    CNvidiaDriverFix(const CNvidiaDriverFix&) = delete;
    CNvidiaDriverFix& operator=(const CNvidiaDriverFix&) = delete;

    /// @param token receives a handle that can query and adjust; the caller closes it.
    [[nodiscard]] static bool OpenCurrentProcessToken(HANDLE& token) noexcept;

    /// @param token needs TOKEN_QUERY.
    [[nodiscard]] bool SaveCurrentPrivilegesFromToken(HANDLE token) noexcept;

    /// Tries all four, whatever becomes of the one before.
    /// @param token needs TOKEN_ADJUST_PRIVILEGES.
    /// @return true only when each call worked.
    static bool SetPrivilegesForToken(HANDLE token) noexcept;

    /// Enables one privilege. One that the token does not hold counts as a success and changes nothing.
    [[nodiscard]] static bool SetPrivilegeByName(HANDLE token, const wchar_t* name) noexcept;

    /// @return false when nothing is saved or the token could not be set back.
    bool RestoreSavedPrivileges() noexcept;

private:
    std::unique_ptr<BYTE[]> m_savedPrivileges; ///< a TOKEN_PRIVILEGES block, or null
};
