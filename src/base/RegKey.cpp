#include "base/RegKey.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Basalt
{

namespace
{

/// Most values fit; longer ones cost a second call.
constexpr DWORD kFirstReadBytes = 256;

/// The text up to its first NUL. The stored size counts bytes and promises nothing about a terminator.
std::wstring TextOf(const std::vector<BYTE>& data)
{
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::copy_n(data.data(), text.size() * sizeof(wchar_t), reinterpret_cast<BYTE*>(text.data()));
    text.resize(std::min(text.size(), text.find(L'\0')));
    return text;
}

DWORD ExpandVariables(std::wstring& text)
{
    std::wstring expanded(text.size() + MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD needed =
            ::ExpandEnvironmentStringsW(text.c_str(), expanded.data(), static_cast<DWORD>(expanded.size()));
        if (needed == 0)
        {
            return ::GetLastError();
        }
        if (needed <= expanded.size())
        {
            expanded.resize(needed - 1);
            text = std::move(expanded);
            return ERROR_SUCCESS;
        }
        expanded.resize(needed);
    }
}

} // namespace

CRegKey& CRegKey::operator=(CRegKey&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_key = other.Release();
    }
    return *this;
}

DWORD CRegKey::Open(HKEY root, const wchar_t* path, REGSAM access, DWORD options) noexcept
{
    Close();
    HKEY key = nullptr;
    const LSTATUS status = ::RegOpenKeyExW(root, path, options, access, &key);
    if (status == ERROR_SUCCESS)
    {
        m_key = key;
    }
    return static_cast<DWORD>(status);
}

DWORD CRegKey::Create(HKEY root, const wchar_t* path, REGSAM access, DWORD options) noexcept
{
    Close();
    HKEY key = nullptr;
    const LSTATUS status = ::RegCreateKeyExW(root, path, 0, nullptr, options, access, nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS)
    {
        m_key = key;
    }
    return static_cast<DWORD>(status);
}

void CRegKey::Close() noexcept
{
    if (m_key != nullptr)
    {
        ::RegCloseKey(Release());
    }
}

HKEY CRegKey::Release() noexcept
{
    return std::exchange(m_key, nullptr);
}

DWORD CRegKey::ReadValue(const wchar_t* name, DWORD& type, std::vector<BYTE>& data) const noexcept
try
{
    std::vector<BYTE> buffer(kFirstReadBytes);
    for (;;)
    {
        DWORD foundType = REG_NONE;
        auto size = static_cast<DWORD>(buffer.size());
        const LSTATUS status = ::RegQueryValueExW(m_key, name, nullptr, &foundType, buffer.data(), &size);
        if (status == ERROR_SUCCESS)
        {
            buffer.resize(size);
            type = foundType;
            data = std::move(buffer);
            return ERROR_SUCCESS;
        }
        if (status != ERROR_MORE_DATA)
        {
            return static_cast<DWORD>(status);
        }
        // Another process may make the value longer between two calls: the loop ends when one fits. Growing
        // by a byte at least keeps it moving should the reported size ever not exceed the buffer.
        buffer.resize(std::max<std::size_t>(size, buffer.size() + 1));
    }
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CRegKey::ReadString(const wchar_t* name, std::wstring& value) const noexcept
try
{
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    DWORD status = ReadValue(name, type, data);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ)
    {
        return ERROR_DATATYPE_MISMATCH;
    }
    std::wstring text = TextOf(data);
    if (type == REG_EXPAND_SZ)
    {
        status = ExpandVariables(text);
        if (status != ERROR_SUCCESS)
        {
            return status;
        }
    }
    value = std::move(text);
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CRegKey::ReadDword(const wchar_t* name, DWORD& value) const noexcept
{
    DWORD type = REG_NONE;
    DWORD data = 0;
    DWORD size = sizeof(data);
    const LSTATUS status =
        ::RegQueryValueExW(m_key, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &size);
    if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA)
    {
        return static_cast<DWORD>(status);
    }
    if (type != REG_DWORD)
    {
        return ERROR_DATATYPE_MISMATCH;
    }
    if (status == ERROR_MORE_DATA || size != sizeof(data))
    {
        return ERROR_INVALID_DATA;
    }
    value = data;
    return ERROR_SUCCESS;
}

DWORD CRegKey::WriteString(const wchar_t* name, const std::wstring& value) noexcept
{
    const std::size_t size = (value.size() + 1) * sizeof(wchar_t);
    if (size > MAXDWORD)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return WriteValue(name, REG_SZ, value.c_str(), static_cast<DWORD>(size));
}

DWORD CRegKey::WriteDword(const wchar_t* name, DWORD value) noexcept
{
    return WriteValue(name, REG_DWORD, &value, sizeof(value));
}

DWORD CRegKey::WriteValue(const wchar_t* name, DWORD type, const void* data, DWORD size) noexcept
{
    return static_cast<DWORD>(::RegSetValueExW(m_key, name, 0, type, static_cast<const BYTE*>(data), size));
}

DWORD CRegKey::DeleteValue(const wchar_t* name) noexcept
{
    return static_cast<DWORD>(::RegDeleteValueW(m_key, name));
}

DWORD CRegKey::GetInfo(DWORD& subKeyCount, DWORD& valueCount) const noexcept
{
    DWORD subKeys = 0;
    DWORD values = 0;
    const LSTATUS status = ::RegQueryInfoKeyW(
        m_key,
        nullptr,
        nullptr,
        nullptr,
        &subKeys,
        nullptr,
        nullptr,
        &values,
        nullptr,
        nullptr,
        nullptr,
        nullptr);
    if (status == ERROR_SUCCESS)
    {
        subKeyCount = subKeys;
        valueCount = values;
    }
    return static_cast<DWORD>(status);
}

} // namespace Basalt
