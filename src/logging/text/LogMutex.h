#pragma once

#include <windows.h>

#include <atomic>
#include <string>

#include "base/Owned.h"

namespace ETWLogging
{

/// Serialises the writers of one log file in all processes, whatever account they run under.
///
/// Its name comes from the file's path, so processes that write the same file meet at the same mutex as long
/// as they spell the path alike, upper and lower case aside.
///
/// Threads: any, once Create has run.
/// @see https://learn.microsoft.com/windows/win32/sync/mutex-objects
class CLogMutex
{
public:
    /// Without success there is no mutex, and nobody waits.
    /// @param path full path of the log file.
    /// @return 0, or the Win32 error: ERROR_INVALID_OWNER for a mutex that an ordinary user made first.
    /// @throws std::bad_alloc
    [[nodiscard]] DWORD Create(const std::wstring& path);

    /// Tries to hold the mutex for its scope, and goes on without it after a time: a message that is late is
    /// worth less than a caller that is stuck. Who has waited in vain is not waited for again: until the
    /// mutex is got, later tries of this process wait no time at all.
    class CHold
    {
    public:
        CHold(CLogMutex& mutex, DWORD waitMs) noexcept;
        ~CHold();
        CHold(const CHold&) = delete;
        CHold& operator=(const CHold&) = delete;

        /// False without a mutex, and when the time ran out.
        [[nodiscard]] bool IsHeld() const noexcept { return m_held != nullptr; }

    private:
        HANDLE m_held = nullptr;
    };

private:
    Basalt::CHandle m_mutex;
    std::atomic<bool> m_isOutOfReach = false; ///< The last wait timed out.
};

} // namespace ETWLogging
