#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace Basalt
{

/// One open registry key, closed when the object goes away.
///
/// Every operation returns a Win32 error code, 0 for success, and logs nothing: the caller knows what the
/// failure means. Out-parameters stay untouched on failure. No operation throws; a lack of memory is
/// ERROR_OUTOFMEMORY. Nothing adds KEY_WOW64_32KEY or KEY_WOW64_64KEY: the view is the process's own unless
/// the caller asks for another with the access mask.
///
/// Threads: an object belongs to one thread at a time.
/// @see https://learn.microsoft.com/windows/win32/sysinfo/registry-functions
class CRegKey
{
public:
    CRegKey() noexcept = default;
    /// Takes over an open handle; null is allowed.
    explicit CRegKey(HKEY key) noexcept : m_key(key) {}
    CRegKey(CRegKey&& other) noexcept : m_key(other.Release()) {}
    CRegKey& operator=(CRegKey&& other) noexcept;
    CRegKey(const CRegKey&) = delete;
    CRegKey& operator=(const CRegKey&) = delete;
    ~CRegKey() { Close(); }

    /// Opens an existing key. What the object held before is closed first.
    /// @param options REG_OPTION_OPEN_LINK opens a link key itself instead of its target.
    [[nodiscard]] DWORD Open(HKEY root, const wchar_t* path, REGSAM access, DWORD options = 0) noexcept;

    /// Opens a key, creating it and the missing keys above it. What the object held before is closed first.
    /// @param options as for RegCreateKeyExW: REG_OPTION_CREATE_LINK, REG_OPTION_OPEN_LINK and the like.
    [[nodiscard]] DWORD Create(
        HKEY root, const wchar_t* path, REGSAM access, DWORD options = REG_OPTION_NON_VOLATILE) noexcept;

    void Close() noexcept;
    [[nodiscard]] explicit operator bool() const noexcept { return m_key != nullptr; }
    [[nodiscard]] HKEY Get() const noexcept { return m_key; }
    /// Gives up ownership: the caller closes what it gets.
    [[nodiscard]] HKEY Release() noexcept;

    /// Reads a string of any length up to its first NUL; a missing terminator and an odd last byte are
    /// tolerated. REG_EXPAND_SZ comes with its environment variables replaced.
    /// @param name the value's name; empty (or null) for the key's default value.
    /// @return ERROR_DATATYPE_MISMATCH when the value is neither REG_SZ nor REG_EXPAND_SZ.
    [[nodiscard]] DWORD ReadString(const wchar_t* name, std::wstring& value) const noexcept;

    /// @return ERROR_DATATYPE_MISMATCH for another type, ERROR_INVALID_DATA for a REG_DWORD of another size.
    [[nodiscard]] DWORD ReadDword(const wchar_t* name, DWORD& value) const noexcept;

    /// Reads a value of any type and size as it is stored.
    [[nodiscard]] DWORD ReadValue(const wchar_t* name, DWORD& type, std::vector<BYTE>& data) const noexcept;

    [[nodiscard]] DWORD WriteString(const wchar_t* name, const std::wstring& value) noexcept;
    [[nodiscard]] DWORD WriteDword(const wchar_t* name, DWORD value) noexcept;
    /// @param size of the data in bytes; no terminator is added.
    [[nodiscard]] DWORD WriteValue(const wchar_t* name, DWORD type, const void* data, DWORD size) noexcept;
    [[nodiscard]] DWORD DeleteValue(const wchar_t* name) noexcept;

    /// Counts the key's direct sub-keys and its values.
    [[nodiscard]] DWORD GetInfo(DWORD& subKeyCount, DWORD& valueCount) const noexcept;

private:
    HKEY m_key = nullptr;
};

} // namespace Basalt
