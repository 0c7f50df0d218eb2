#include "logging/LogMutex.h"

#include <cstdint>

#include "base/Text.h"
#include "logging/SecurityAttributes.h"

namespace ETWLogging
{

namespace
{

/// System and administrators: all rights. The service accounts: wait for it and release it.
constexpr wchar_t kSecurity[] =
    L"D:(A;;0x1F0001;;;SY)(A;;0x1F0001;;;BA)(A;;0x100001;;;LS)(A;;0x100001;;;NS)(A;;0x100001;;;SU)";

std::wstring UpperCase(const std::wstring& text)
{
    std::wstring upper = text; // The mapping keeps the length.
    ::LCMapStringEx(
        LOCALE_NAME_INVARIANT,
        LCMAP_UPPERCASE,
        text.data(),
        static_cast<int>(text.size()),
        upper.data(),
        static_cast<int>(upper.size()),
        nullptr,
        nullptr,
        0);
    return upper;
}

/// FNV-1a with 64 bits. A backslash is not allowed in the mutex's name, and the path may be long.
std::uint64_t Hash(const std::wstring& text) noexcept
{
    std::uint64_t hash = 14695981039346656037ULL;
    for (const wchar_t character : text)
    {
        hash = (hash ^ character) * 1099511628211ULL;
    }
    return hash;
}

} // namespace

void CLogMutex::Create(const std::wstring& path)
{
    const std::uint64_t hash = Hash(UpperCase(path));
    const std::wstring name = Basalt::FormatText(
        L"Global\\Tarvex.Log.%08X%08X", static_cast<DWORD>(hash >> 32), static_cast<DWORD>(hash));
    CSecurityAttributes security(kSecurity);
    m_mutex.Reset(::CreateMutexExW(security.Get(), name.c_str(), 0, SYNCHRONIZE | MUTEX_MODIFY_STATE));
}

CLogMutex::CHold::CHold(const CLogMutex& mutex, DWORD waitMs) noexcept
{
    if (!mutex.m_mutex)
    {
        return;
    }
    const DWORD result = ::WaitForSingleObject(mutex.m_mutex.Get(), waitMs);
    // Abandoned: its holder died while writing. The file is append-only, at worst one line is torn.
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED)
    {
        m_held = mutex.m_mutex.Get();
    }
}

CLogMutex::CHold::~CHold()
{
    if (m_held != nullptr)
    {
        ::ReleaseMutex(m_held);
    }
}

} // namespace ETWLogging
