#pragma once

#include <windows.h>

#include <atomic>

namespace ETWLogging
{

/// The levels whose messages nobody wants at the moment, so that a call for one of them costs no more than
/// a look at one number. A closed level is a promise of the logger: passing the message on would do nothing.
/// Threads: any. A message at the moment of a change may still see the state before it.
class CLevelGate
{
public:
    /// Higher numbers always pass.
    static constexpr DWORD kLevels = 32;

    [[nodiscard]] bool IsClosed(DWORD level) const noexcept
    {
        return level < kLevels && (m_closed.load(std::memory_order_relaxed) >> level & 1U) != 0;
    }

    /// @param levels bit n closes level n, and opens it when it is clear.
    void Close(DWORD levels) noexcept { m_closed.store(levels, std::memory_order_relaxed); }

private:
    std::atomic<DWORD> m_closed = 0;
};

} // namespace ETWLogging
