#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "base/RegKey.h"

/// How the host's configuration reads and writes its values.
///
/// A missing key or value (ERROR_FILE_NOT_FOUND) is silent, since the caller has a default; every other
/// failure is logged here, once, with the code and the name, and gives false. Keys are opened with
/// KEY_ALL_ACCESS in the process's own registry view. Out-parameters stay untouched on failure unless an
/// operation says otherwise.
///
/// Threads: holds no state; any thread.
/// @see https://learn.microsoft.com/windows/win32/sysinfo/registry-functions
class CRegistryStore
{
public:
    CRegistryStore() = delete;

    /// @param slot receives the key; another key that it held is closed.
    [[nodiscard]] static bool OpenRegistryKey(
        HKEY parent, const wchar_t* path, Basalt::CRegKey& slot) noexcept;
    [[nodiscard]] static bool OpenOrCreateRegistryKey(
        HKEY parent, const wchar_t* path, Basalt::CRegKey& slot) noexcept;

    /// True only when the stored type is REG_DWORD. Another type is a failure like any other; when the query
    /// itself succeeded, the line that reports it carries the code 0.
    [[nodiscard]] static bool QueryRegistryDWORDValue(HKEY key, const wchar_t* name, DWORD& value) noexcept;

    /// Reads a value that has a valid range, both ends included.
    /// @param value the stored value, or @p fallback when it is missing, mistyped or out of range.
    /// @return true when a REG_DWORD was read, also when it was out of range.
    static bool QueryRegistryDWORDValue(
        HKEY key, const wchar_t* name, DWORD& value, DWORD minimum, DWORD maximum, DWORD fallback) noexcept;

    /// Reads up to 1022 bytes of any type as text, up to the first NUL. A longer value fails with
    /// ERROR_MORE_DATA.
    [[nodiscard]] static bool QueryRegistryStringValue(HKEY key, const wchar_t* name, std::wstring& value);

    [[nodiscard]] static bool SetRegistryDWORDValue(HKEY key, const wchar_t* name, DWORD value) noexcept;

    /// @return false for a null key, without a log line.
    [[nodiscard]] static bool QueryRegistryInfoKey(HKEY key, DWORD& subKeyCount, DWORD& valueCount) noexcept;

    /// Lists the names of the key's values; values that cannot be read are logged and left out.
    /// @param names      cleared first.
    /// @param lowerCase  lower-cases the names.
    /// @return false for a null key and when the enumeration itself fails.
    [[nodiscard]] static bool EnumerateRegistryValuesIntoContainer(
        HKEY key, std::vector<std::wstring>& names, bool lowerCase);
};
