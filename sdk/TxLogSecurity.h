#pragma once

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <cwchar>
#include <iterator>
#include <new>
#include <string>

/// @file
/// Keeps ordinary users out of what hosts and log controllers share: the folder of the logs, and mutexes. A
/// user may have made them before the first host does, or put a link in the folder's place. Link with
/// advapi32. All of it may throw std::bad_alloc.

namespace TxSdk
{

/// The full form of a path; empty for what is none.
[[nodiscard]] inline std::wstring FullPath(const std::wstring& path)
{
    std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

/// The folder of the logs unless another one is configured, below the machine's data folder, or below
/// Windows' temporary folder should the environment lack the former.
[[nodiscard]] inline std::wstring DefaultLogFolder()
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", path, MAX_PATH);
    const bool isKnown = length != 0 && length < MAX_PATH;
    if (!isKnown)
    {
        ::GetWindowsDirectoryW(path, MAX_PATH);
    }
    std::wstring folder = path;
    if (!isKnown)
    {
        folder += L"\\Temp";
    }
    return FullPath(folder += L"\\Tarvex\\Log");
}

namespace Detail
{

/// The SECURITY_ATTRIBUTES for a security descriptor in its text form.
/// @see https://learn.microsoft.com/windows/win32/secauthz/security-descriptor-string-format
class CSecurityAttributes
{
public:
    explicit CSecurityAttributes(const char* text)
    {
        if (!::ConvertStringSecurityDescriptorToSecurityDescriptorA(
                text, SDDL_REVISION_1, &m_attributes.lpSecurityDescriptor, nullptr))
        {
            throw std::bad_alloc(); // The texts here are right.
        }
    }
    CSecurityAttributes(const CSecurityAttributes&) = delete;
    CSecurityAttributes& operator=(const CSecurityAttributes&) = delete;
    ~CSecurityAttributes() { ::LocalFree(m_attributes.lpSecurityDescriptor); }

    [[nodiscard]] SECURITY_ATTRIBUTES* Get() noexcept { return &m_attributes; }

private:
    SECURITY_ATTRIBUTES m_attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

/// S-1-5-32-544, as it stands in memory.
[[nodiscard]] inline PSID Administrators()
{
    alignas(SID) static BYTE s_sid[] = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0};
    return s_sid;
}

/// Whether this is somebody who may write the logs anyway: SYSTEM, the administrators, the account of a
/// service, or the account of this process.
[[nodiscard]] inline bool IsTrusted(PSID account)
{
    // S-1-3-4 stands for the owner, who is looked at by himself; S-1-5-6 for whoever runs as a service. 18 to
    // 20 are SYSTEM, LOCAL SERVICE and NETWORK SERVICE, S-1-5-80-... a service by itself.
    const SID& sid = *static_cast<const SID*>(account);
    const BYTE authority = sid.IdentifierAuthority.Value[5];
    const DWORD first = sid.SubAuthority[0];
    if ((authority == 3 && first == SECURITY_CREATOR_OWNER_RIGHTS_RID) ||
        (authority == 5 && (first == SECURITY_SERVICE_RID || first == SECURITY_SERVICE_ID_BASE_RID ||
                            (first >= SECURITY_LOCAL_SYSTEM_RID && first <= SECURITY_NETWORK_SERVICE_RID))) ||
        ::EqualSid(account, Administrators()))
    {
        return true;
    }
    // What a process makes belongs to its token's owner, which need not be its user.
    for (const TOKEN_INFORMATION_CLASS kind : {TokenUser, TokenOwner})
    {
        alignas(TOKEN_USER) BYTE own[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE] = {};
        DWORD size = 0;
        if (::GetTokenInformation(::GetCurrentProcessToken(), kind, own, sizeof(own), &size) &&
            ::EqualSid(*reinterpret_cast<PSID*>(own), account)) // The first member of both.
        {
            return true;
        }
    }
    return false;
}

/// Whether all others may only read in a folder. Rights that only its content inherits do not count.
[[nodiscard]] inline bool IsKeptFromUsers(PACL rights)
{
    constexpr DWORD kReading = 0x1200A9; // FILE_GENERIC_READ and FILE_GENERIC_EXECUTE.
    void* entry = nullptr;
    for (DWORD i = 0; rights != nullptr && ::GetAce(rights, i, &entry); ++i)
    {
        auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (allowed.Header.AceType != ACCESS_DENIED_ACE_TYPE &&
            (allowed.Header.AceFlags & INHERIT_ONLY_ACE) == 0 && (allowed.Mask & ~kReading) != 0 &&
            !IsTrusted(&allowed.SidStart))
        {
            return false;
        }
    }
    return rights != nullptr; // Without a list everybody has all rights.
}

/// @param object a handle with READ_CONTROL.
/// @return 0, ERROR_INVALID_OWNER, ERROR_INVALID_ACL for a folder in which others may do more than read, or
///         the Win32 error of asking.
[[nodiscard]] inline DWORD CheckSecurity(HANDLE object, SE_OBJECT_TYPE type)
{
    PSID owner = nullptr;
    PACL rights = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    DWORD status = ::GetSecurityInfo(
        object,
        type,
        OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
        &owner,
        nullptr,
        &rights,
        nullptr,
        &descriptor);
    if (status == ERROR_SUCCESS)
    {
        status = owner == nullptr || !IsTrusted(owner)                ? DWORD{ERROR_INVALID_OWNER}
                 : type == SE_FILE_OBJECT && !IsKeptFromUsers(rights) ? DWORD{ERROR_INVALID_ACL}
                                                                      : DWORD{ERROR_SUCCESS};
    }
    ::LocalFree(descriptor);
    return status;
}

/// An open folder, with WRITE_DAC where that can be had. Nothing that it is opened for takes part in share
/// checks: no user can keep it from being opened, and it keeps nobody from renaming the folder.
class COpenFolder
{
public:
    static constexpr DWORD kRoom = 2 * MAX_PATH;

    explicit COpenFolder(const wchar_t* path)
    {
        for (const DWORD access : {DWORD{READ_CONTROL | WRITE_DAC}, DWORD{READ_CONTROL}})
        {
            m_handle = ::CreateFileW(
                path,
                access,
                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                nullptr,
                OPEN_EXISTING,
                FILE_FLAG_BACKUP_SEMANTICS,
                nullptr);
            if (m_handle != INVALID_HANDLE_VALUE)
            {
                break;
            }
        }
    }
    COpenFolder(const COpenFolder&) = delete;
    COpenFolder& operator=(const COpenFolder&) = delete;
    ~COpenFolder()
    {
        if (m_handle != INVALID_HANDLE_VALUE)
        {
            ::CloseHandle(m_handle);
        }
    }

    [[nodiscard]] HANDLE Get() const { return m_handle; }

    /// Where it really is, whatever links led to it; empty when that cannot be told.
    void GetPath(wchar_t (&path)[kRoom]) const
    {
        if (::GetFinalPathNameByHandleW(m_handle, path, kRoom, FILE_NAME_OPENED | VOLUME_NAME_NT) >= kRoom)
        {
            path[0] = L'\0';
        }
    }

private:
    HANDLE m_handle = INVALID_HANDLE_VALUE;
};

[[nodiscard]] inline bool IsSamePath(const wchar_t* one, const wchar_t* other)
{
    return ::CompareStringOrdinal(one, -1, other, -1, TRUE) == CSTR_EQUAL;
}

/// With its missing parents, which get the default security.
/// @param folder changed meanwhile.
/// @return 0 or the Win32 error.
inline DWORD MakeFolder(wchar_t* folder, SECURITY_ATTRIBUTES* security)
{
    DWORD error = ::CreateDirectoryW(folder, security) ? DWORD{ERROR_SUCCESS} : ::GetLastError();
    wchar_t* const backslash = std::wcsrchr(folder, L'\\');
    if (error == ERROR_PATH_NOT_FOUND && backslash != nullptr)
    {
        *backslash = L'\0';
        MakeFolder(folder, nullptr);
        *backslash = L'\\';
        error = ::CreateDirectoryW(folder, security) ? DWORD{ERROR_SUCCESS} : ::GetLastError();
    }
    return error;
}

/// Makes a folder unless it is there already.
/// @return 0, ERROR_DIRECTORY for a link or a file, or the Win32 error of making it.
[[nodiscard]] inline DWORD EnsureFolder(wchar_t* folder, SECURITY_ATTRIBUTES* security)
{
    const DWORD error = MakeFolder(folder, security);
    const DWORD kind =
        ::GetFileAttributesW(folder) & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    return kind == FILE_ATTRIBUTE_DIRECTORY                          ? DWORD{ERROR_SUCCESS}
           : error == ERROR_SUCCESS || error == ERROR_ALREADY_EXISTS ? DWORD{ERROR_DIRECTORY}
                                                                     : error;
}

/// Looks at a folder as it is opened, not at its name, which may stand for another by now, and takes from
/// users what rights they have to change it.
/// @param realPath where it must be.
/// @param security that of a new one.
[[nodiscard]] inline DWORD SecureFolder(
    const wchar_t* path, const wchar_t* realPath, PSECURITY_DESCRIPTOR security)
{
    const COpenFolder folder(path);
    if (folder.Get() == INVALID_HANDLE_VALUE)
    {
        return ::GetLastError();
    }
    wchar_t found[COpenFolder::kRoom] = {};
    folder.GetPath(found);
    if (!IsSamePath(found, realPath))
    {
        return ERROR_DIRECTORY;
    }
    const DWORD status = CheckSecurity(folder.Get(), SE_FILE_OBJECT);
    constexpr DWORD kAll = DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION;
    return status == ERROR_INVALID_ACL && ::SetKernelObjectSecurity(folder.Get(), kAll, security)
               ? DWORD{ERROR_SUCCESS}
               : status;
}

// Protected: below the machine's data folder every user would else inherit the right to plant a file, and to
// turn an empty folder into a link. System and administrators have all rights, users may read.

/// The product's folder: services may make the folder of the logs in it, but have no right to whatever else
/// is there, nor has the one that made it.
inline constexpr char kProductRights[] =
    "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;;FRFXLC;;;OW)(A;;FRFXLC;;;LS)(A;;FRFXLC;;;NS)"
    "(A;;FRFXLC;;;SU)(A;OICI;FRFX;;;BU)";

/// A folder of logs: services may write, rename and delete. Whoever made a file keeps it.
inline constexpr char kLogRights[] =
    "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;OW)(A;OICI;FRFWFXSD;;;LS)(A;OICI;FRFWFXSD;;;NS)"
    "(A;OICI;FRFWFXSD;;;SU)(A;OICI;FRFX;;;BU)";

[[nodiscard]] inline DWORD TakeDefaultFolder()
{
    struct Level
    {
        const wchar_t* name;
        const char* rights;
    };
    constexpr std::size_t kBelowData = std::size(L"\\Tarvex\\Log") - 1;
    std::wstring path = DefaultLogFolder();
    path.resize(path.size() - kBelowData);
    MakeFolder(path.data(), nullptr);
    wchar_t data[COpenFolder::kRoom] = {};
    COpenFolder(path.c_str()).GetPath(data);
    std::wstring realPath = data;
    DWORD status = ERROR_SUCCESS;
    for (const Level& level : {Level{L"\\Tarvex", kProductRights}, Level{L"\\Log", kLogRights}})
    {
        CSecurityAttributes security(level.rights);
        path += level.name;
        realPath += level.name;
        // Administrators may hide the product's folder from a service and give it the folder of the logs
        // alone. A user may hide one of his own: so nothing is made in it, and an administrator, as whom
        // SYSTEM counts too, takes nothing that is hidden from him.
        BOOL isAdministrator = TRUE;
        const bool isHidden = status == ERROR_ACCESS_DENIED &&
                              ::CheckTokenMembership(nullptr, Administrators(), &isAdministrator) &&
                              !isAdministrator;
        if (status == ERROR_SUCCESS)
        {
            status = EnsureFolder(path.data(), security.Get());
        }
        if (status == ERROR_SUCCESS || isHidden)
        {
            status = SecureFolder(path.c_str(), realPath.c_str(), security.Get()->lpSecurityDescriptor);
        }
    }
    return status;
}

} // namespace Detail

/// However it is spelt, as long as its full path is the same.
/// @param folder without a backslash at the end.
[[nodiscard]] inline bool IsDefaultLogFolder(const std::wstring& folder)
{
    return Detail::IsSamePath(FullPath(folder).c_str(), DefaultLogFolder().c_str());
}

/// Creates or opens a mutex of the processes that write logs. SYSTEM and the administrators have all rights
/// to it, the service accounts may wait for it and release it.
/// @return owned by the caller; null when it cannot be had, with the reason as the last error:
///         ERROR_INVALID_OWNER when somebody else made it, who could then hold it for ever.
[[nodiscard]] inline HANDLE OpenLogMutex(const wchar_t* name)
{
    Detail::CSecurityAttributes security(
        "D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x120001;;;LS)(A;;0x120001;;;NS)(A;;0x120001;;;SU)");
    const HANDLE mutex =
        ::CreateMutexExW(security.Get(), name, 0, READ_CONTROL | SYNCHRONIZE | MUTEX_MODIFY_STATE);
    if (mutex != nullptr && ::GetLastError() == ERROR_ALREADY_EXISTS &&
        Detail::CheckSecurity(mutex, SE_KERNEL_OBJECT) != ERROR_SUCCESS)
    {
        ::CloseHandle(mutex);
        ::SetLastError(ERROR_INVALID_OWNER);
        return nullptr;
    }
    return mutex;
}

/// Makes the folder of the logs when it is missing, such that SYSTEM, the administrators and services may
/// write in it and users read, and makes sure that it can be used. What is there already must be no link.
///
/// Any user could have made the default folder, the product's folder around it, or links in their places. So
/// both must be where they seem to be and belong to one who may write the logs anyway, and users must have
/// no right to change them. Rights of that kind, as they come from the machine's data folder, are replaced
/// by those of a new folder. From then on only trusted accounts can rename the folders, put links in their
/// places or files in them: they need not be held.
///
/// What this does not undo: files that a user has put there before are still his, and one who has opened the
/// folder for writing before may still make a link of it while nothing is in it.
///
/// Threads: any.
/// @param folder without a backslash at the end.
/// @return 0; ERROR_DIRECTORY for a link or a file; for the default folder also ERROR_INVALID_OWNER when it
///         or the product's folder belongs to somebody else, and ERROR_INVALID_ACL when users may change one
///         of them and this account cannot keep them from it; or the Win32 error of making or opening one.
[[nodiscard]] inline DWORD TakeLogFolder(std::wstring folder)
{
    if (IsDefaultLogFolder(folder))
    {
        return Detail::TakeDefaultFolder();
    }
    // Who else may write there is its administrator's affair.
    Detail::CSecurityAttributes security(Detail::kLogRights);
    return Detail::EnsureFolder(folder.data(), security.Get());
}

} // namespace TxSdk
