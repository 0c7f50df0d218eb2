#include "proxy/ServiceStart.h"

#include <cwchar>
#include <iterator>

CServiceStart::CServiceStart(CList& list, const std::wstring& name) : m_list(list)
{
    const Basalt::CLockGuard guard(m_list.m_lock);
    m_entry =
        m_list.m_entries.insert(m_list.m_entries.begin(), {name}); // First: without memory nothing changes.
    for (auto earlier = std::next(m_entry); earlier != m_list.m_entries.end(); ++earlier)
    {
        if (::_wcsicmp(earlier->name.c_str(), name.c_str()) == 0)
        {
            earlier->isLast = false;
        }
    }
}

CServiceStart::~CServiceStart()
{
    const Basalt::CLockGuard guard(m_list.m_lock);
    m_list.m_entries.erase(m_entry);
}
