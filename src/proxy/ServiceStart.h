#pragma once

#include <windows.h>

#include "base/Lock.h"

/// One start of a service, from its thread's entry to the end of that thread.
///
/// The service control manager may start a service again as soon as it has reported that it is stopped, while
/// the thread of the old start is still on its way out. Whoever wants to report something at the end must
/// know whether that start is still the service's last.
/// Threads: an object belongs to the service's thread; it stands on its stack.
class CServiceStart
{
public:
    /// The starts of a process that have not ended. Threads: any.
    class CList
    {
    public:
        [[nodiscard]] bool IsEmpty() noexcept TX_EXCLUDES(m_lock)
        {
            const Basalt::CLockGuard guard(m_lock);
            return m_first == nullptr;
        }

    private:
        friend class CServiceStart;
        Basalt::CLock m_lock;
        CServiceStart* m_first TX_GUARDED_BY(m_lock) = nullptr;
    };

    /// @param name borrowed: must outlive the object.
    CServiceStart(CList& list, const wchar_t* name) noexcept;
    ~CServiceStart();
    CServiceStart(const CServiceStart&) = delete;
    CServiceStart& operator=(const CServiceStart&) = delete;

    [[nodiscard]] const wchar_t* Name() const noexcept { return m_name; }

    /// Runs the action unless the service has been started again; a further start of any service waits for
    /// its end.
    template <typename Action>
    void IfLast(Action&& action) const noexcept TX_EXCLUDES(m_list.m_lock)
    {
        const Basalt::CLockGuard guard(m_list.m_lock);
        if (m_isLast)
        {
            action();
        }
    }

private:
    CList& m_list;
    const wchar_t* m_name;
    bool m_isLast TX_GUARDED_BY(m_list.m_lock) = true;
    CServiceStart* m_next TX_GUARDED_BY(m_list.m_lock) = nullptr;
};
