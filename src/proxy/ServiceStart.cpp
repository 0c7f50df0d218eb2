#include "proxy/ServiceStart.h"

#include <cwchar>

CServiceStart::CServiceStart(CList& list, const wchar_t* name) noexcept : m_list(list), m_name(name)
{
    const Basalt::CLockGuard guard(m_list.m_lock);
    for (CServiceStart* earlier = m_list.m_first; earlier != nullptr; earlier = earlier->m_next)
    {
        if (::_wcsicmp(earlier->m_name, m_name) == 0)
        {
            earlier->m_isLast = false;
        }
    }
    m_next = m_list.m_first;
    m_list.m_first = this;
}

CServiceStart::~CServiceStart()
{
    const Basalt::CLockGuard guard(m_list.m_lock);
    CServiceStart** place = &m_list.m_first;
    while (*place != this)
    {
        place = &(*place)->m_next;
    }
    *place = m_next;
}
