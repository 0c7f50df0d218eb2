#pragma once

#include <windows.h>

#include <string>
#include <utility>

#include "base/RegKey.h"

/// A registry key that a test starts with empty and leaves removed, also after a failed assertion.
class CTestKey
{
public:
    /// @param path below @p root; what stands there is deleted. The key is created unless told otherwise.
    CTestKey(HKEY root, std::wstring path, bool create = true) : m_root(root), m_path(std::move(path))
    {
        Remove();
        if (create)
        {
            static_cast<void>(m_key.Create(m_root, m_path.c_str(), KEY_ALL_ACCESS));
        }
    }
    ~CTestKey() { Remove(); }
    CTestKey(const CTestKey&) = delete;
    CTestKey& operator=(const CTestKey&) = delete;

    [[nodiscard]] Basalt::CRegKey& Key() noexcept { return m_key; }
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }

    void Remove() noexcept
    {
        m_key.Close();
        ::RegDeleteTreeW(m_root, m_path.c_str());
    }

private:
    HKEY m_root;
    std::wstring m_path;
    Basalt::CRegKey m_key;
};
