#pragma once

#include <windows.h>

#include <list>
#include <string>

#include "base/Lock.h"

/// One start of a service, from its thread's entry to the end of that thread.
///
/// The service control manager may start a service again as soon as it has reported that it is stopped, while
/// the thread of the old start is still on its way out. Whoever wants to report something at the end must
/// know whether that start is still the service's last.
/// Threads: an object belongs to the service's thread; it stands on its stack.
class CServiceStart
{
    struct Entry
    {
        std::wstring name;
        bool isLast = true;
    };

public:
    /// The starts of a process that have not ended. The entries stand by themselves: a hosted service that
    /// ends its thread takes the stack with it, and its entry stays here for good.
    /// Threads: any.
    class CList
    {
    public:
        [[nodiscard]] bool IsEmpty() noexcept TX_EXCLUDES(m_lock)
        {
            const Basalt::CLockGuard guard(m_lock);
            return m_entries.empty();
        }

    private:
        friend class CServiceStart;
        Basalt::CLock m_lock;
        std::list<Entry> m_entries TX_GUARDED_BY(m_lock);
    };

    CServiceStart(CList& list, const std::wstring& name);
    ~CServiceStart();
    CServiceStart(const CServiceStart&) = delete;
    CServiceStart& operator=(const CServiceStart&) = delete;

    [[nodiscard]] const wchar_t* Name() const noexcept { return m_entry->name.c_str(); }

    /// Runs the action unless the service has been started again; a further start of any service waits for
    /// its end.
    template <typename Action>
    void IfLast(Action&& action) const noexcept TX_EXCLUDES(m_list.m_lock)
    {
        const Basalt::CLockGuard guard(m_list.m_lock);
        if (m_entry->isLast)
        {
            action();
        }
    }

private:
    CList& m_list;
    std::list<Entry>::iterator m_entry; ///< Its isLast is guarded by the list's lock.
};
