#include "control/RegistryLink.h"

#include <windows.h>

#include <cwchar>
#include <iterator>
#include <utility>

#include "base/SystemLibrary.h"
#include "contract/LinkForm.h"

namespace
{

// To a 32-bit process both paths are the same key: making the link would empty it.
static_assert(sizeof(void*) == 8, "the host is a 64-bit program");

constexpr std::size_t kKernelPrefixLength = std::size(Contract::kKernelPrefix) - 1;
constexpr std::size_t kLongestKernelPath = 512; ///< characters, without a terminator
constexpr REGSAM kTargetAccess = KEY_READ | KEY_WRITE;

/// A populated key takes three passes: empty it, delete it, create the link. More means that it cannot be
/// deleted.
constexpr unsigned kLastPass = 5;

bool IsEmpty(const wchar_t* text) noexcept
{
    return text == nullptr || *text == L'\0';
}

/// Link data is a kernel path without a terminator.
bool SetLinkTarget(Basalt::CRegKey& link, const wchar_t* path, std::size_t length) noexcept
{
    const auto size = static_cast<DWORD>(length * sizeof(wchar_t));
    return link.WriteValue(Contract::kLinkValue, REG_LINK, path, size) == ERROR_SUCCESS;
}

/// SHDeleteKeyW. Its DLL is loaded when a link must be made, once in the life of an installation: at each
/// start of each host it would cost more than the look at the link does.
/// @see https://learn.microsoft.com/windows/win32/api/shlwapi/nf-shlwapi-shdeletekeyw
bool EmptyKey(HKEY key) noexcept
{
    const Basalt::CModule shlwapi = Basalt::LoadSystemLibrary(L"shlwapi.dll");
    auto* const deleteKey =
        Basalt::FindExport<LSTATUS WINAPI(HKEY, const wchar_t*)>(shlwapi.Get(), "SHDeleteKeyW");
    return deleteKey != nullptr && deleteKey(key, L"") == ERROR_SUCCESS;
}

/// One step towards a free path: deletes the key when nothing is in it but perhaps the link value, else
/// empties it.
bool RemoveExistingKey(const wchar_t* linkPath) noexcept
{
    Basalt::CRegKey existing;
    DWORD subKeys = 0;
    DWORD values = 0;
    if (existing.Create(HKEY_LOCAL_MACHINE, linkPath, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) !=
            ERROR_SUCCESS ||
        existing.GetInfo(subKeys, values) != ERROR_SUCCESS)
    {
        return false;
    }
    if (subKeys == 0 && values < 2)
    {
        return DeleteKeyByHandle(existing.Get());
    }
    return EmptyKey(existing.Get());
}

} // namespace

bool IsRegistryLink(const wchar_t* linkPath) noexcept
{
    if (IsEmpty(linkPath))
    {
        return false;
    }
    Basalt::CRegKey key;
    if (key.Create(HKEY_LOCAL_MACHINE, linkPath, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) != ERROR_SUCCESS)
    {
        return false;
    }
    DWORD type = REG_NONE;
    return ::RegQueryValueExW(key.Get(), Contract::kLinkValue, nullptr, &type, nullptr, nullptr) ==
               ERROR_SUCCESS &&
           type == REG_LINK;
}

bool CreateRegistryLink(
    const wchar_t* linkPath, const wchar_t* targetPath, bool force, bool ensureTarget) noexcept
{
    if (IsEmpty(linkPath) || IsEmpty(targetPath))
    {
        return false;
    }
    if (ensureTarget)
    {
        Basalt::CRegKey target;
        if (target.Create(HKEY_LOCAL_MACHINE, targetPath, kTargetAccess) != ERROR_SUCCESS)
        {
            return false;
        }
    }

    Basalt::CRegKey link = RecreateLinkKey(linkPath, force, 0);
    if (!link)
    {
        return false;
    }

    const std::size_t targetLength = std::wcslen(targetPath);
    if (targetLength > kLongestKernelPath - kKernelPrefixLength)
    {
        return false;
    }
    wchar_t kernelPath[kLongestKernelPath];
    std::wmemcpy(kernelPath, Contract::kKernelPrefix, kKernelPrefixLength);
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): link data has no terminator.
    std::wmemcpy(kernelPath + kKernelPrefixLength, targetPath, targetLength);
    return SetLinkTarget(link, kernelPath, kKernelPrefixLength + targetLength);
}

Basalt::CRegKey RecreateLinkKey(const wchar_t* linkPath, bool force, unsigned depth) noexcept
{
    if (depth > kLastPass)
    {
        return {};
    }
    Basalt::CRegKey link;
    const DWORD status = link.Create(HKEY_LOCAL_MACHINE, linkPath, KEY_ALL_ACCESS, REG_OPTION_CREATE_LINK);
    if (status == ERROR_SUCCESS)
    {
        // A link key without a value could not be told from a plain one: it gets a placeholder at once.
        return SetLinkTarget(link, Contract::kLinkPlaceholder, 1) ? std::move(link) : Basalt::CRegKey();
    }
    if (status != ERROR_ALREADY_EXISTS || !force || !RemoveExistingKey(linkPath))
    {
        return {};
    }
    return RecreateLinkKey(linkPath, true, depth + 1);
}

bool DeleteKeyByHandle(HKEY key) noexcept
{
    // RegDeleteKeyW would follow the link and delete the target.
    using NtDeleteKey = LONG NTAPI(HANDLE);
    const auto deleteKey = Basalt::FindExport<NtDeleteKey>(::GetModuleHandleW(L"ntdll.dll"), "NtDeleteKey");
    return deleteKey != nullptr && deleteKey(key) == 0;
}
