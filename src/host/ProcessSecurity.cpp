#include "host/ProcessSecurity.h"

#include <new>
#include <utility>

#include "base/Owned.h"

namespace
{

using Buffer = std::unique_ptr<BYTE[]>;

/// COM_RIGHTS_EXECUTE: the right to call into the process.
constexpr DWORD kExecuteRight = 1;

Buffer Allocate(DWORD size) noexcept
{
    return Buffer(new (std::nothrow) BYTE[size]);
}

/// The calling thread's token, or the process's when the thread has none.
Basalt::CHandle OpenCallerToken() noexcept
{
    Basalt::CHandle token;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, FALSE, token.Put()) &&
        ::GetLastError() == ERROR_NO_TOKEN)
    {
        static_cast<void>(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.Put()));
    }
    return token;
}

} // namespace

void CProcessSecurity::Build() noexcept
{
    ::InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION);
    if (!setOwnerAndGroup())
    {
        ::InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION);
        return;
    }
    static_cast<void>(AllowAccount(L"Everyone", kExecuteRight));
}

bool CProcessSecurity::setOwnerAndGroup() noexcept
{
    const Basalt::CHandle token = OpenCallerToken();
    if (!token)
    {
        return false;
    }
    DWORD size = 0;
    return ::GetTokenInformation(token.Get(), TokenOwner, &m_owner, sizeof(m_owner), &size) &&
           ::GetTokenInformation(token.Get(), TokenPrimaryGroup, &m_group, sizeof(m_group), &size) &&
           ::SetSecurityDescriptorOwner(&m_descriptor, m_owner.value.Owner, FALSE) &&
           ::SetSecurityDescriptorGroup(&m_descriptor, m_group.value.PrimaryGroup, FALSE);
}

CProcessSecurity::Buffer CProcessSecurity::lookUpAccount(const wchar_t* account) noexcept
{
    DWORD sidSize = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use = SidTypeUnknown;
    // Asks for the sizes, so it has to fail: success without buffers would have told nothing.
    if (::LookupAccountNameW(nullptr, account, nullptr, &sidSize, nullptr, &domainLength, &use) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        return nullptr;
    }
    Buffer sid = Allocate(sidSize);
    const std::unique_ptr<wchar_t[]> domain(new (std::nothrow) wchar_t[domainLength]);
    if (sid == nullptr || domain == nullptr ||
        ::LookupAccountNameW(nullptr, account, sid.get(), &sidSize, domain.get(), &domainLength, &use) ==
            FALSE)
    {
        return nullptr;
    }
    return sid;
}

bool CProcessSecurity::AllowAccount(const wchar_t* account, DWORD access) noexcept
{
    const Buffer sid = lookUpAccount(account);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ACL* oldDacl = nullptr;
    if (sid == nullptr || !::GetSecurityDescriptorDacl(&m_descriptor, &present, &oldDacl, &defaulted))
    {
        return false;
    }
    ACL_SIZE_INFORMATION old{};
    old.AclBytesInUse = sizeof(ACL);
    if (present && oldDacl != nullptr && !::GetAclInformation(oldDacl, &old, sizeof(old), AclSizeInformation))
    {
        return false;
    }

    const DWORD size = old.AclBytesInUse + static_cast<DWORD>(sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD)) +
                       ::GetLengthSid(sid.get());
    Buffer dacl = Allocate(size);
    auto* const newDacl = reinterpret_cast<ACL*>(dacl.get());
    if (newDacl == nullptr || !::InitializeAcl(newDacl, size, ACL_REVISION))
    {
        return false;
    }
    for (DWORD index = 0; index < old.AceCount; ++index)
    {
        void* ace = nullptr;
        if (!::GetAce(oldDacl, index, &ace) ||
            !::AddAce(newDacl, ACL_REVISION, MAXDWORD, ace, static_cast<ACE_HEADER*>(ace)->AceSize))
        {
            return false;
        }
    }
    if (!::AddAccessAllowedAce(newDacl, ACL_REVISION, access, sid.get()) ||
        !::SetSecurityDescriptorDacl(&m_descriptor, TRUE, newDacl, FALSE))
    {
        return false;
    }
    m_dacl = std::move(dacl); // Frees the old one, which the descriptor no longer points at.
    return true;
}
