#pragma once

#include <windows.h>

#include <memory>

/// The security descriptor with which the process opens COM to everyone: owner and primary group of the
/// calling thread's token, and a DACL that lets the account "Everyone" execute.
///
/// Threads: the one that initialises COM security. The descriptor points into the object, which must outlive
/// its use.
/// @see https://learn.microsoft.com/windows/win32/com/access-permissions-for-com-applications
class CProcessSecurity
{
public:
    CProcessSecurity() noexcept = default;
    CProcessSecurity(const CProcessSecurity&) = delete;
    CProcessSecurity& operator=(const CProcessSecurity&) = delete;

    /// Builds the descriptor. A failing sub-step is not reported: the descriptor is used as it then stands,
    /// since a host with COM's own defaults is better than no host.
    void Build() noexcept;

    /// Adds an entry that allows the account the access, behind the entries that the DACL already has.
    [[nodiscard]] bool AllowAccount(const wchar_t* account, DWORD access) noexcept;

    [[nodiscard]] PSECURITY_DESCRIPTOR Descriptor() noexcept { return &m_descriptor; }

private:
    using Buffer = std::unique_ptr<BYTE[]>;

    /// What a token tells, and behind it the SID that it points at.
    template <typename Value>
    struct WithSid
    {
        Value value;
        BYTE sid[SECURITY_MAX_SID_SIZE];
    };

    [[nodiscard]] bool setOwnerAndGroup() noexcept;
    [[nodiscard]] static Buffer lookUpAccount(const wchar_t* account) noexcept;

    SECURITY_DESCRIPTOR m_descriptor{};
    WithSid<TOKEN_OWNER> m_owner{};
    WithSid<TOKEN_PRIMARY_GROUP> m_group{};
    Buffer m_dacl;
};
