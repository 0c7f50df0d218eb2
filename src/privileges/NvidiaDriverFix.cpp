#include "privileges/NvidiaDriverFix.h"

#include <iterator>
#include <new>

#include "base/Owned.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"NvidiaDriverFix";

constexpr const wchar_t* kPrivileges[] = {
    L"SeIncreaseBasePriorityPrivilege",
    L"SeIncreaseQuotaPrivilege",
    L"SeProfileSingleProcessPrivilege",
    L"SeUndockPrivilege",
};

bool IsHandle(HANDLE token) noexcept
{
    return token != nullptr && token != INVALID_HANDLE_VALUE;
}

struct TokenTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept
    {
        if (IsHandle(value))
        {
            ::CloseHandle(value);
        }
    }
};
using CToken = Basalt::COwned<TokenTraits>;

} // namespace

CNvidiaDriverFix::CNvidiaDriverFix(bool apply) noexcept
{
    CToken token;
    if (OpenCurrentProcessToken(*token.Put()) && SaveCurrentPrivilegesFromToken(token.Get()) && apply)
    {
        SetPrivilegesForToken(token.Get());
    }
}

CNvidiaDriverFix::~CNvidiaDriverFix()
{
    RestoreSavedPrivileges();
}

bool CNvidiaDriverFix::OpenCurrentProcessToken(HANDLE& token) noexcept
{
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError,
            L"CNvidiaDriverFix::OpenCurrentProcessToken",
            L"OpenProcessToken failed (0x%08X)",
            error);
        return false;
    }
    return true;
}

bool CNvidiaDriverFix::SaveCurrentPrivilegesFromToken(HANDLE token) noexcept
{
    constexpr wchar_t kFunction[] = L"CNvidiaDriverFix::SaveCurrentPrivilegesFromToken";
    DWORD size = 0;
    // Asks for the size, so it has to fail.
    if (::GetTokenInformation(token, TokenPrivileges, nullptr, 0, &size))
    {
        TX_LOG(LogError, kFunction, L"OpenProcessToken error - should have failed");
        return false;
    }
    DWORD error = ::GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER)
    {
        TX_LOG(LogError, kFunction, L"GetTokenInformation(1) failed (0x%08X)", error);
        return false;
    }
    m_savedPrivileges.reset(new (std::nothrow) BYTE[size]());
    if (m_savedPrivileges == nullptr)
    {
        TX_LOG(LogError, kFunction, L"Memory alloc failure (%lu bytes)", size);
        return false;
    }
    if (!::GetTokenInformation(token, TokenPrivileges, m_savedPrivileges.get(), size, &size))
    {
        // The buffer stays. It is all zeros: restoring from it names no privilege and changes none.
        error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"GetTokenInformation(2) failed (0x%08X)", error);
        return false;
    }
    return true;
}

bool CNvidiaDriverFix::SetPrivilegesForToken(HANDLE token) noexcept
{
    TX_LOG(
        LogNormal,
        L"CNvidiaDriverFix::SetPrivilegesForToken",
        L"Setting %d privileges",
        static_cast<int>(std::size(kPrivileges)));
    bool allSet = true;
    for (const wchar_t* name : kPrivileges)
    {
        allSet = SetPrivilegeByName(token, name) && allSet;
    }
    return allSet;
}

bool CNvidiaDriverFix::SetPrivilegeByName(HANDLE token, const wchar_t* name) noexcept
{
    constexpr wchar_t kFunction[] = L"CNvidiaDriverFix::SetPrivilegeByName";
    if (!IsHandle(token))
    {
        TX_LOG(LogError, kFunction, L"Invalid token value");
        return false;
    }
    if (name == nullptr || *name == L'\0')
    {
        TX_LOG(LogError, kFunction, L"No privileges set");
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"Setting privilege: %s", name);

    TOKEN_PRIVILEGES block{};
    block.PrivilegeCount = 1;
    block.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (!::LookupPrivilegeValueW(nullptr, name, &block.Privileges[0].Luid))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"LookupPrivilegeValue failed (0x%08x)", error);
        return false;
    }
    // The last error of a success is not looked at: ERROR_NOT_ALL_ASSIGNED says that the token does not hold
    // the privilege, which is no failure here.
    if (!::AdjustTokenPrivileges(token, FALSE, &block, sizeof(block), nullptr, nullptr))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError, kFunction, L"SetPrivilegeByName: AdjustTokenPrivileges failed with error: %lu", error);
        return false;
    }
    return true;
}

bool CNvidiaDriverFix::RestoreSavedPrivileges() noexcept
{
    CToken token;
    if (m_savedPrivileges == nullptr || !OpenCurrentProcessToken(*token.Put()))
    {
        return false;
    }
    auto* const saved = reinterpret_cast<TOKEN_PRIVILEGES*>(m_savedPrivileges.get());
    if (!::AdjustTokenPrivileges(token.Get(), FALSE, saved, 0, nullptr, nullptr))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError,
            L"CNvidiaDriverFix::RestoreSavedPrivileges",
            L"AdjustTokenPrivileges failed (0x%08X)",
            error);
        return false;
    }
    return true;
}
