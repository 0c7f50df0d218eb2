#pragma once

#include <windows.h>
#include <sddl.h>

#include <cwchar>
#include <string>

/// @file
/// Keeps ordinary users out of what hosts and log controllers share: the folder of the logs, and mutexes. A
/// user may have made them before the first host does, or put a link in the folder's place. Link with
/// advapi32.

namespace TxSdk
{

/// The folder of the logs unless another one is configured, below the machine's data folder, or below
/// Windows' temporary folder should the environment lack the former.
/// @throws std::bad_alloc
[[nodiscard]] inline std::wstring DefaultLogFolder()
{
    constexpr std::size_t kRoomBehind = 32;
    wchar_t path[MAX_PATH + kRoomBehind] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
    {
        ::GetWindowsDirectoryW(path, MAX_PATH);
        std::wcscat(path, L"\\Temp");
    }
    return std::wcscat(path, L"\\Tarvex\\Log");
}

/// Whether an object belongs to one who may write the logs anyway: SYSTEM, the administrators, the account
/// of a service, or the account of this process. The rights that an object has do not count: its owner can
/// change them at any time.
/// @param object a handle with READ_CONTROL.
[[nodiscard]] inline bool IsOwnerTrusted(HANDLE object) noexcept
{
    constexpr DWORD kRoom = sizeof(SECURITY_DESCRIPTOR) + SECURITY_MAX_SID_SIZE;
    alignas(SECURITY_DESCRIPTOR) BYTE descriptor[kRoom] = {};
    PSID owner = nullptr;
    BOOL isDefaulted = FALSE;
    DWORD size = 0;
    if (!::GetKernelObjectSecurity(object, OWNER_SECURITY_INFORMATION, descriptor, kRoom, &size) ||
        !::GetSecurityDescriptorOwner(descriptor, &owner, &isDefaulted) || owner == nullptr)
    {
        return false;
    }
    // S-1-5-18 to 20 are SYSTEM, LOCAL SERVICE and NETWORK SERVICE, S-1-5-80-... a service by itself.
    const SID& sid = *static_cast<const SID*>(owner);
    const DWORD first = sid.IdentifierAuthority.Value[5] == 5 ? sid.SubAuthority[0] : 0;
    if (first == SECURITY_LOCAL_SYSTEM_RID || first == SECURITY_LOCAL_SERVICE_RID ||
        first == SECURITY_NETWORK_SERVICE_RID || first == SECURITY_SERVICE_ID_BASE_RID ||
        ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid))
    {
        return true;
    }
    HANDLE token = nullptr;
    bool isOwn = false;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
    {
        // What a process makes belongs to its token's owner, which need not be its user.
        for (const TOKEN_INFORMATION_CLASS kind : {TokenUser, TokenOwner})
        {
            alignas(TOKEN_USER) BYTE own[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE] = {};
            isOwn = isOwn || (::GetTokenInformation(token, kind, own, sizeof(own), &size) &&
                              ::EqualSid(*reinterpret_cast<PSID*>(own), owner)); // The first member of both.
        }
        ::CloseHandle(token);
    }
    return isOwn;
}

namespace Detail
{

/// The SECURITY_ATTRIBUTES for a security descriptor in its text form.
/// @see https://learn.microsoft.com/windows/win32/secauthz/security-descriptor-string-format
class CSecurityAttributes
{
public:
    explicit CSecurityAttributes(const wchar_t* text) noexcept
    {
        ::ConvertStringSecurityDescriptorToSecurityDescriptorW(
            text, SDDL_REVISION_1, &m_attributes.lpSecurityDescriptor, nullptr);
    }
    CSecurityAttributes(const CSecurityAttributes&) = delete;
    CSecurityAttributes& operator=(const CSecurityAttributes&) = delete;
    ~CSecurityAttributes() { ::LocalFree(m_attributes.lpSecurityDescriptor); }

    /// Null, which stands for the default security, when there was no memory for the descriptor.
    [[nodiscard]] SECURITY_ATTRIBUTES* Get() noexcept
    {
        return m_attributes.lpSecurityDescriptor != nullptr ? &m_attributes : nullptr;
    }

private:
    SECURITY_ATTRIBUTES m_attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

/// With its missing parents.
/// @param folder changed meanwhile.
/// @return 0, also for what is there already, or the Win32 error.
inline DWORD MakeFolder(wchar_t* folder, SECURITY_ATTRIBUTES* security)
{
    DWORD error = ::CreateDirectoryW(folder, security) ? DWORD{ERROR_SUCCESS} : ::GetLastError();
    wchar_t* const backslash = std::wcsrchr(folder, L'\\');
    if (error == ERROR_PATH_NOT_FOUND && backslash != nullptr)
    {
        *backslash = L'\0';
        error = MakeFolder(folder, security);
        *backslash = L'\\';
        if (error == ERROR_SUCCESS && !::CreateDirectoryW(folder, security))
        {
            error = ::GetLastError();
        }
    }
    return error == ERROR_ALREADY_EXISTS ? DWORD{ERROR_SUCCESS} : error;
}

/// A folder, and no link.
[[nodiscard]] constexpr bool IsRealFolder(DWORD attributes) noexcept
{
    return (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
           FILE_ATTRIBUTE_DIRECTORY;
}

} // namespace Detail

/// Creates or opens a mutex of the processes that write logs. SYSTEM and the administrators have all rights
/// to it, the service accounts may wait for it and release it.
/// @return owned by the caller; null when it cannot be had, with the reason as the last error:
///         ERROR_INVALID_OWNER when somebody else made it, who could then hold it for ever.
[[nodiscard]] inline HANDLE OpenLogMutex(const wchar_t* name) noexcept
{
    Detail::CSecurityAttributes security(
        L"D:(A;;0x1F0001;;;SY)(A;;0x1F0001;;;BA)(A;;0x120001;;;LS)(A;;0x120001;;;NS)(A;;0x120001;;;SU)");
    const HANDLE mutex =
        ::CreateMutexExW(security.Get(), name, 0, READ_CONTROL | SYNCHRONIZE | MUTEX_MODIFY_STATE);
    if (mutex != nullptr && ::GetLastError() == ERROR_ALREADY_EXISTS && !IsOwnerTrusted(mutex))
    {
        ::CloseHandle(mutex);
        ::SetLastError(ERROR_INVALID_OWNER);
        return nullptr;
    }
    return mutex;
}

/// The folder of the logs, made when it is missing.
///
/// What is made, the parents too, may be written by SYSTEM, the administrators and services, and read by
/// users. What is there already must be no link. The default folder and its parent, which any user could have
/// made, must also belong to a trusted owner; that folder is held open, so that nobody can rename it or put
/// another one in its place while it is written to.
///
/// Threads: any may call Take.
class CLogFolder
{
public:
    CLogFolder() noexcept = default;
    CLogFolder(const CLogFolder&) = delete;
    CLogFolder& operator=(const CLogFolder&) = delete;
    ~CLogFolder() { Release(); }

    /// @param folder without a backslash at the end.
    /// @return 0, ERROR_DIRECTORY for a link or a file, ERROR_INVALID_OWNER for a default folder that
    ///         belongs to somebody else, or the Win32 error of making or opening it.
    /// @throws std::bad_alloc
    [[nodiscard]] DWORD Take(const std::wstring& folder)
    {
        CLogFolder taken;
        std::wstring path = DefaultLogFolder();
        const bool isDefault =
            ::CompareStringOrdinal(folder.c_str(), -1, path.c_str(), -1, TRUE) == CSTR_EQUAL;
        path = folder;
        const DWORD status = isDefault ? taken.takeDefault(path.data()) : takeOther(path.data());
        if (status == ERROR_SUCCESS)
        {
            taken.m_folder = ::InterlockedExchangePointer(&m_folder, taken.m_folder);
        }
        return status;
    }

    /// Lets others rename or remove the folder.
    void Release() noexcept
    {
        if (m_folder != INVALID_HANDLE_VALUE)
        {
            ::CloseHandle(m_folder);
            m_folder = INVALID_HANDLE_VALUE;
        }
    }

private:
    /// Protected: below the machine's data folder every user would else inherit the right to plant a file.
    /// System and administrators: all rights. The service accounts: write, rename, delete. Users: read.
    /// Whoever made a file keeps it.
    [[nodiscard]] static DWORD make(wchar_t* folder)
    {
        Detail::CSecurityAttributes security(
            L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;OW)(A;OICI;0x1301BF;;;LS)"
            L"(A;OICI;0x1301BF;;;NS)(A;OICI;0x1301BF;;;SU)(A;OICI;0x1200A9;;;BU)");
        return security.Get() != nullptr ? Detail::MakeFolder(folder, security.Get()) : ::GetLastError();
    }

    [[nodiscard]] DWORD takeDefault(wchar_t* folder)
    {
        CLogFolder parent; // First: nothing shall be made behind a link.
        wchar_t* const backslash = std::wcsrchr(folder, L'\\');
        *backslash = L'\0';
        DWORD status = parent.open(folder);
        *backslash = L'\\';
        if (status == ERROR_SUCCESS)
        {
            status = open(folder);
        }
        // The parent may have become a link after it was looked at. With the folder in it, it no longer can.
        return status == ERROR_SUCCESS && !isIn(parent) ? DWORD{ERROR_DIRECTORY} : status;
    }

    [[nodiscard]] static DWORD takeOther(wchar_t* folder)
    {
        const DWORD error = make(folder);
        return Detail::IsRealFolder(::GetFileAttributesW(folder)) ? DWORD{ERROR_SUCCESS}
               : error != ERROR_SUCCESS                           ? error
                                                                  : DWORD{ERROR_DIRECTORY};
    }

    /// Makes it, then looks at what is open rather than at a name, which may mean another folder by then.
    [[nodiscard]] DWORD open(wchar_t* folder)
    {
        const DWORD error = make(folder);
        // Without the right to list it an open folder keeps nobody from anything.
        m_folder = ::CreateFileW(
            folder,
            FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | READ_CONTROL,
            FILE_SHARE_READ | FILE_SHARE_WRITE,
            nullptr,
            OPEN_EXISTING,
            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
            nullptr);
        BY_HANDLE_FILE_INFORMATION information{};
        if (m_folder == INVALID_HANDLE_VALUE)
        {
            return error != ERROR_SUCCESS ? error : ::GetLastError();
        }
        if (!::GetFileInformationByHandle(m_folder, &information) ||
            !Detail::IsRealFolder(information.dwFileAttributes))
        {
            return ERROR_DIRECTORY;
        }
        return IsOwnerTrusted(m_folder) ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_INVALID_OWNER};
    }

    /// By where both really are.
    [[nodiscard]] bool isIn(const CLogFolder& parent) const
    {
        constexpr DWORD kRoom = 2 * MAX_PATH;
        wchar_t path[kRoom] = {};
        wchar_t parentPath[kRoom] = {};
        const DWORD length = ::GetFinalPathNameByHandleW(m_folder, path, kRoom, VOLUME_NAME_NT);
        ::GetFinalPathNameByHandleW(parent.m_folder, parentPath, kRoom, VOLUME_NAME_NT);
        wchar_t* const backslash = std::wcsrchr(path, L'\\');
        if (length >= kRoom || backslash == nullptr)
        {
            return false;
        }
        *backslash = L'\0';
        return std::wcscmp(path, parentPath) == 0;
    }

    HANDLE m_folder = INVALID_HANDLE_VALUE;
};

} // namespace TxSdk
