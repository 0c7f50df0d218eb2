#include "base/ObfuscatedRegKey.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <exception>
#include <utility>
#include <vector>

#include "base/Fnv.h"

namespace Basalt
{

namespace
{

constexpr std::array<BYTE, 4> kMark = {'T', 'X', 'O', '1'};
constexpr std::size_t kSaltOffset = kMark.size();
constexpr std::size_t kBodyOffset = kSaltOffset + sizeof(std::uint32_t);
constexpr std::size_t kCheckBytes = sizeof(std::uint32_t);
constexpr std::size_t kSmallestValue = kBodyOffset + sizeof(DWORD) + kCheckBytes;

using Hash = CFnv<std::uint32_t>;

/// Value names are not case-sensitive, so neither is what the scrambling takes from them.
Hash HashOfName(const wchar_t* name)
{
    Hash hash;
    for (const wchar_t* at = name == nullptr ? L"" : name; *at != L'\0'; ++at)
    {
        hash.Add(static_cast<std::uint32_t>(std::towlower(*at)));
    }
    return hash;
}

/// @param hash of the value's name.
std::uint32_t CheckOf(Hash hash, const BYTE* data, std::size_t size)
{
    std::for_each(data, data + size, [&hash](BYTE byte) { hash.Add(byte); });
    return hash.Get();
}

/// Scrambles and unscrambles: the same stream of bytes is laid over the data both times (xorshift32).
void ApplyStream(BYTE* data, std::size_t size, std::uint32_t salt, std::uint32_t nameHash)
{
    std::uint32_t state = (salt ^ nameHash) | 1U; // xorshift stands still at 0.
    for (std::size_t i = 0; i < size; ++i)
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        data[i] = static_cast<BYTE>(data[i] ^ (state >> 24));
    }
}

std::vector<BYTE> Scramble(const wchar_t* name, DWORD type, const void* data, std::size_t size)
{
    LARGE_INTEGER counter{};
    ::QueryPerformanceCounter(&counter);
    const auto salt = static_cast<std::uint32_t>(counter.QuadPart);
    const Hash nameHash = HashOfName(name);

    std::vector<BYTE> stored(kBodyOffset + sizeof(type) + size + kCheckBytes);
    std::copy(kMark.begin(), kMark.end(), stored.begin());
    std::memcpy(&stored[kSaltOffset], &salt, sizeof(salt));
    BYTE* const body = &stored[kBodyOffset];
    std::memcpy(body, &type, sizeof(type));
    std::copy_n(static_cast<const BYTE*>(data), size, body + sizeof(type));
    const std::uint32_t check = CheckOf(nameHash, body, sizeof(type) + size);
    std::memcpy(body + sizeof(type) + size, &check, sizeof(check));
    ApplyStream(body, sizeof(type) + size + kCheckBytes, salt, nameHash.Get());
    return stored;
}

/// @param stored the value's bytes; on success only the data is left in it.
DWORD Unscramble(const wchar_t* name, std::vector<BYTE>& stored, DWORD& type)
{
    if (stored.size() < kSmallestValue || !std::equal(kMark.begin(), kMark.end(), stored.begin()))
    {
        return ERROR_INVALID_DATA;
    }
    std::uint32_t salt = 0;
    std::memcpy(&salt, &stored[kSaltOffset], sizeof(salt));
    const Hash nameHash = HashOfName(name);
    BYTE* const body = &stored[kBodyOffset];
    const std::size_t bodySize = stored.size() - kBodyOffset;
    ApplyStream(body, bodySize, salt, nameHash.Get());

    std::uint32_t check = 0;
    std::memcpy(&check, body + bodySize - kCheckBytes, sizeof(check));
    if (check != CheckOf(nameHash, body, bodySize - kCheckBytes))
    {
        return ERROR_INVALID_DATA;
    }
    std::memcpy(&type, body, sizeof(type));
    stored.resize(stored.size() - kCheckBytes);
    stored.erase(stored.begin(), stored.begin() + kBodyOffset + sizeof(type));
    return ERROR_SUCCESS;
}

DWORD ReadScrambled(const CRegKey& key, const wchar_t* name, DWORD expectedType, std::vector<BYTE>& data)
{
    DWORD storedType = REG_NONE;
    DWORD status = key.ReadValue(name, storedType, data);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    if (storedType != REG_BINARY)
    {
        return ERROR_DATATYPE_MISMATCH; // Somebody wrote it plain.
    }
    DWORD type = REG_NONE;
    status = Unscramble(name, data, type);
    if (status == ERROR_SUCCESS && type != expectedType)
    {
        return ERROR_DATATYPE_MISMATCH;
    }
    return status;
}

DWORD WriteScrambled(CRegKey& key, const wchar_t* name, DWORD type, const void* data, std::size_t size)
{
    const std::vector<BYTE> stored = Scramble(name, type, data, size);
    if (stored.size() > MAXDWORD)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return key.WriteValue(name, REG_BINARY, stored.data(), static_cast<DWORD>(stored.size()));
}

} // namespace

DWORD CObfuscatedRegKey::Open(HKEY root, const wchar_t* path, REGSAM access) noexcept
{
    return m_key.Open(root, path, access);
}

DWORD CObfuscatedRegKey::Create(HKEY root, const wchar_t* path, REGSAM access) noexcept
{
    return m_key.Create(root, path, access);
}

DWORD CObfuscatedRegKey::ReadString(const wchar_t* name, std::wstring& value) const noexcept
try
{
    std::vector<BYTE> data;
    const DWORD status = ReadScrambled(m_key, name, REG_SZ, data);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    value = std::move(text);
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CObfuscatedRegKey::ReadDword(const wchar_t* name, DWORD& value) const noexcept
try
{
    std::vector<BYTE> data;
    const DWORD status = ReadScrambled(m_key, name, REG_DWORD, data);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    if (data.size() != sizeof(value))
    {
        return ERROR_INVALID_DATA;
    }
    std::memcpy(&value, data.data(), sizeof(value));
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CObfuscatedRegKey::WriteString(const wchar_t* name, const std::wstring& value) noexcept
try
{
    return WriteScrambled(m_key, name, REG_SZ, value.data(), value.size() * sizeof(wchar_t));
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CObfuscatedRegKey::WriteDword(const wchar_t* name, DWORD value) noexcept
try
{
    return WriteScrambled(m_key, name, REG_DWORD, &value, sizeof(value));
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CObfuscatedRegKey::DeleteValue(const wchar_t* name) noexcept
{
    return m_key.DeleteValue(name);
}

} // namespace Basalt
