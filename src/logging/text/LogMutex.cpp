#include "logging/text/LogMutex.h"

#include <cstdint>

#include "TxLogSecurity.h"
#include "base/Text.h"

namespace ETWLogging
{

namespace
{

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

DWORD CLogMutex::Create(const std::wstring& path)
{
    const std::uint64_t hash = Hash(UpperCase(path));
    const std::wstring name = Basalt::FormatText(
        L"Global\\Tarvex.Log.%08X%08X", static_cast<DWORD>(hash >> 32), static_cast<DWORD>(hash));
    m_mutex.Reset(TxSdk::OpenLogMutex(name.c_str()));
    return m_mutex ? DWORD{ERROR_SUCCESS} : ::GetLastError();
}

CLogMutex::CHold::CHold(CLogMutex& mutex, DWORD waitMs) noexcept
{
    if (!mutex.m_mutex)
    {
        return;
    }
    const DWORD result = ::WaitForSingleObject(mutex.m_mutex.Get(), mutex.m_isOutOfReach ? 0 : waitMs);
    mutex.m_isOutOfReach = result == WAIT_TIMEOUT;
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
