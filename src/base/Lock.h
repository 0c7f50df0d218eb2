#pragma once

#include <windows.h>

#include "base/ThreadAnnotations.h"

namespace Basalt
{

/// A critical section that the compiler's lock analysis understands.
///
/// Mark what it guards with TX_GUARDED_BY(m_lock); touching it without a CLockGuard then does not compile.
/// Threads: any. The lock may be entered again by the thread that holds it.
/// @see https://learn.microsoft.com/windows/win32/sync/critical-section-objects
class TX_CAPABILITY("mutex") CLock
{
public:
    /// @param spinCount how often a waiting thread tries again before it sleeps; 0 sleeps at once.
    explicit CLock(DWORD spinCount = 0) noexcept
    {
        // Cannot fail since Windows Vista; the result is documented as always nonzero.
        static_cast<void>(::InitializeCriticalSectionAndSpinCount(&m_section, spinCount));
    }
    ~CLock() { ::DeleteCriticalSection(&m_section); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    void Enter() noexcept TX_ACQUIRE() { ::EnterCriticalSection(&m_section); }
    void Leave() noexcept TX_RELEASE() { ::LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section{};
};

/// Holds a CLock for its scope.
class TX_SCOPED_CAPABILITY CLockGuard
{
public:
    explicit CLockGuard(CLock& lock) noexcept TX_ACQUIRE(lock) : m_lock(lock) { m_lock.Enter(); }
    ~CLockGuard() TX_RELEASE() { m_lock.Leave(); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

private:
    CLock& m_lock;
};

} // namespace Basalt
