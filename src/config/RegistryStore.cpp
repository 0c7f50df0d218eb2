#include "config/RegistryStore.h"

#include <windows.h>

#include <utility>

#include "base/Text.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"RegistryStore";

constexpr DWORD kStringCharacters = 512;
/// One character less than the buffer holds, so that there is always room for a terminator.
constexpr DWORD kStringBytes = (kStringCharacters - 1) * sizeof(wchar_t);
constexpr DWORD kNameCharacters = 256;

/// @return false, so that reporting and giving up are one statement.
bool Fail(const wchar_t* function, LSTATUS status, const wchar_t* name) noexcept
{
    if (status != ERROR_FILE_NOT_FOUND)
    {
        TX_LOG(LogError, function, L"Error 0x%08X on key '%s'", status, name);
    }
    return false;
}

bool TakeKey(
    const wchar_t* function, LSTATUS status, HKEY key, const wchar_t* path, Basalt::CRegKey& slot) noexcept
{
    if (status != ERROR_SUCCESS || key == nullptr)
    {
        return Fail(function, status, path);
    }
    if (key != slot.Get())
    {
        slot = Basalt::CRegKey(key);
    }
    return true;
}

} // namespace

bool CRegistryStore::OpenRegistryKey(HKEY parent, const wchar_t* path, Basalt::CRegKey& slot) noexcept
{
    HKEY key = nullptr;
    const LSTATUS status = ::RegOpenKeyExW(parent, path, 0, KEY_ALL_ACCESS, &key);
    return TakeKey(L"CRegistryStore::OpenRegistryKey", status, key, path, slot);
}

bool CRegistryStore::OpenOrCreateRegistryKey(HKEY parent, const wchar_t* path, Basalt::CRegKey& slot) noexcept
{
    HKEY key = nullptr;
    const LSTATUS status = ::RegCreateKeyExW(
        parent, path, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    return TakeKey(L"CRegistryStore::OpenOrCreateRegistryKey", status, key, path, slot);
}

bool CRegistryStore::QueryRegistryDWORDValue(HKEY key, const wchar_t* name, DWORD& value) noexcept
{
    DWORD type = REG_NONE;
    DWORD data = 0;
    DWORD size = sizeof(data);
    const LSTATUS status =
        ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &size);
    if (status != ERROR_SUCCESS || type != REG_DWORD)
    {
        // A value of another type that fits is logged with the code of the call, 0: "it is there, but wrong".
        return Fail(L"CRegistryStore::QueryRegistryDWORDValue", status, name);
    }
    value = data;
    return true;
}

bool CRegistryStore::QueryRegistryDWORDValue(
    HKEY key, const wchar_t* name, DWORD& value, DWORD minimum, DWORD maximum, DWORD fallback) noexcept
{
    DWORD stored = 0;
    const bool read = QueryRegistryDWORDValue(key, name, stored);
    value = read && minimum <= stored && stored <= maximum ? stored : fallback;
    return read;
}

bool CRegistryStore::QueryRegistryStringValue(HKEY key, const wchar_t* name, std::wstring& value)
{
    wchar_t buffer[kStringCharacters] = {};
    DWORD size = kStringBytes;
    const LSTATUS status =
        ::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size);
    if (status != ERROR_SUCCESS)
    {
        return Fail(L"CRegistryStore::QueryRegistryStringValue", status, name);
    }
    if (size >= sizeof(buffer))
    {
        // The call claims to have written past what it was given: memory is damaged, going on is worse.
        ::RaiseFailFastException(nullptr, nullptr, 0);
    }
    buffer[size / sizeof(wchar_t)] = L'\0';
    value = buffer;
    return true;
}

bool CRegistryStore::SetRegistryDWORDValue(HKEY key, const wchar_t* name, DWORD value) noexcept
{
    const LSTATUS status =
        ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
    return status == ERROR_SUCCESS || Fail(L"CRegistryStore::SetRegistryDWORDValue", status, name);
}

bool CRegistryStore::QueryRegistryInfoKey(HKEY key, DWORD& subKeyCount, DWORD& valueCount) noexcept
{
    if (key == nullptr)
    {
        return false;
    }
    DWORD subKeys = 0;
    DWORD values = 0;
    const LSTATUS status = ::RegQueryInfoKeyW(
        key,
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
    if (status != ERROR_SUCCESS)
    {
        if (status != ERROR_FILE_NOT_FOUND)
        {
            TX_LOG(LogError, L"CRegistryStore::QueryRegistryInfoKey", L"Error 0x%08X", status);
        }
        return false;
    }
    subKeyCount = subKeys;
    valueCount = values;
    return true;
}

bool CRegistryStore::EnumerateRegistryValuesIntoContainer(
    HKEY key, std::vector<std::wstring>& names, bool lowerCase)
{
    constexpr wchar_t kFunction[] = L"CRegistryStore::EnumerateRegistryValuesIntoContainer";
    names.clear();
    if (key == nullptr)
    {
        return false;
    }
    DWORD subKeyCount = 0;
    DWORD valueCount = 0;
    if (!QueryRegistryInfoKey(key, subKeyCount, valueCount))
    {
        TX_LOG(LogError, kFunction, L"_enumValues: failed in _RegQueryInfoKey");
        return false;
    }
    for (DWORD index = 0; index < valueCount; ++index)
    {
        wchar_t buffer[kNameCharacters] = {};
        DWORD length = kNameCharacters;
        const LSTATUS status =
            ::RegEnumValueW(key, index, buffer, &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS)
        {
            break; // Another process deleted a value since they were counted.
        }
        if (status != ERROR_SUCCESS)
        {
            TX_LOG(LogError, kFunction, L"Error 0x%08X", status);
            return false;
        }
        std::wstring name = buffer;
        std::wstring data;
        if (!QueryRegistryStringValue(key, name.c_str(), data))
        {
            TX_LOG(LogError, kFunction, L"Error retrieving value for '%s'", name);
            continue;
        }
        names.push_back(lowerCase ? Basalt::LowerCased(std::move(name)) : std::move(name));
    }
    return true;
}
