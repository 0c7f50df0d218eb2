#pragma once

#include <windows.h>

#include <string>

#include "base/RegKey.h"

namespace Basalt
{

/// The variant of CRegKey whose stored values are scrambled, for settings that a curious user should not
/// edit by hand.
///
/// This is obfuscation, not protection: whoever has this code can read and write every value. What it does
/// promise is that a value that is not scrambled, is damaged, or was copied from another value's name is
/// reported and never read as garbage.
///
/// A value is stored as REG_BINARY: 4 bytes mark ("TXO1"), 4 bytes salt, then the scrambled type and data,
/// then a scrambled 4-byte check over type, data and the value's name.
///
/// Results, errors and threads are as for CRegKey; beside them
/// - ERROR_DATATYPE_MISMATCH: the value is stored plain, or holds another type than asked for;
/// - ERROR_INVALID_DATA: the mark or the check does not fit.
class CObfuscatedRegKey
{
public:
    [[nodiscard]] DWORD Open(HKEY root, const wchar_t* path, REGSAM access) noexcept;
    [[nodiscard]] DWORD Create(HKEY root, const wchar_t* path, REGSAM access) noexcept;
    void Close() noexcept { m_key.Close(); }
    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(m_key); }
    [[nodiscard]] HKEY Get() const noexcept { return m_key.Get(); }

    [[nodiscard]] DWORD ReadString(const wchar_t* name, std::wstring& value) const noexcept;
    [[nodiscard]] DWORD ReadDword(const wchar_t* name, DWORD& value) const noexcept;
    [[nodiscard]] DWORD WriteString(const wchar_t* name, const std::wstring& value) noexcept;
    [[nodiscard]] DWORD WriteDword(const wchar_t* name, DWORD value) noexcept;
    [[nodiscard]] DWORD DeleteValue(const wchar_t* name) noexcept;

private:
    CRegKey m_key;
};

} // namespace Basalt
