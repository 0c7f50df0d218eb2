#pragma once

#include <windows.h>

#include <atomic>
#include <memory>

#include "logging/LoggerHolder.h"

namespace ETWLogging
{

/// The place where the process's logger is found. Threads that log take no lock: they count themselves in
/// and out, and the teardown waits for those that are inside.
///
/// Threads of hosted services may still log while the process exits. Whoever counts itself in before the
/// teardown empties the slot keeps the logger alive; whoever comes later finds the slot empty.
class CLoggerSlot
{
public:
    constexpr CLoggerSlot() noexcept = default;
    CLoggerSlot(const CLoggerSlot&) = delete;
    CLoggerSlot& operator=(const CLoggerSlot&) = delete;

    /// Keeps the holder in the slot alive for its scope.
    class CUse
    {
    public:
        explicit CUse(CLoggerSlot& slot) noexcept
        {
            if (slot.m_holder.load() == nullptr)
            {
                return; // Not counted: the teardown shall not wait for those that come too late.
            }
            // Counted first, looked again second, both sequentially consistent: Teardown does it the other
            // way round, so one of the two sees the other.
            m_slot = &slot;
            m_slot->m_users.fetch_add(1);
            m_holder = m_slot->m_holder.load();
        }
        ~CUse()
        {
            if (m_slot != nullptr)
            {
                m_slot->m_users.fetch_sub(1);
            }
        }
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;

        /// Null when there is no holder.
        [[nodiscard]] CLoggerHolder* Get() const noexcept { return m_holder; }

    private:
        CLoggerSlot* m_slot = nullptr; ///< Where it is counted.
        CLoggerHolder* m_holder = nullptr;
    };

    /// Puts the holder into the slot, which must be empty.
    void Publish(std::unique_ptr<CLoggerHolder> holder) noexcept { m_holder = holder.release(); }

    /// Empties the slot, unregisters the holder's handler and destroys the holder. Users that do not leave
    /// within the time keep it: it then stays allocated, which at the end of a process costs nothing.
    void Teardown(DWORD waitMs) noexcept;

private:
    std::atomic<CLoggerHolder*> m_holder = nullptr;
    std::atomic<DWORD> m_users = 0;
};

/// The process's slot. It stays usable, and empty, after the logger is gone.
[[nodiscard]] CLoggerSlot& ProcessLoggerSlot() noexcept;

} // namespace ETWLogging
