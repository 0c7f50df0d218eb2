#include "txsvcctl/common/Names.h"

#include <windows.h>
#include <objbase.h>

#include <string_view>

#include "TxLogSecurity.h"
#include "contract/CommandLine.h"
#include "contract/Keys.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

/// The service manager's limit, and one less for a registry key.
constexpr std::size_t kLongestServiceName = 256;
constexpr std::size_t kLongestGroupName = 255;

/// Separators of the service list, of paths and of command lines, and the quotes around them.
constexpr std::wstring_view kForbidden = L";:,/\\\"'";

void CheckName(const wchar_t* kind, const std::wstring& name, std::size_t longest)
{
    const std::wstring subject = std::wstring(L"the ") + kind + L" name";
    if (name.empty())
    {
        ThrowUsage(subject + L" is empty");
    }
    if (name.size() > longest)
    {
        ThrowUsage(subject + L" is longer than " + std::to_wstring(longest) + L" characters");
    }
    if (name.find_first_of(kForbidden) != std::wstring::npos)
    {
        ThrowUsage(subject + L" '" + name + L"' holds one of the characters ; : , / \\ \" '");
    }
    for (const wchar_t character : name)
    {
        if (character < L' ')
        {
            ThrowUsage(subject + L" holds a control character");
        }
    }
    if (name.front() == L' ' || name.back() == L' ')
    {
        ThrowUsage(subject + L" '" + name + L"' begins or ends with a blank");
    }
}

} // namespace

bool IsSameName(const std::wstring& left, const std::wstring& right) noexcept
{
    return ::CompareStringOrdinal(
               left.data(),
               static_cast<int>(left.size()),
               right.data(),
               static_cast<int>(right.size()),
               TRUE) == CSTR_EQUAL;
}

void CheckServiceName(const std::wstring& name)
{
    CheckName(L"service", name, kLongestServiceName);
    if (IsSameName(name, Contract::kBucketLimitValue))
    {
        ThrowUsage(
            L"the service name '" + name + L"' is that of a value which the host keeps in the group's key");
    }
}

void CheckGroupName(const std::wstring& name)
{
    CheckName(L"group", name, kLongestGroupName);
    if ((Contract::kGroupDelimiter + name).starts_with(Contract::kStartServicesSwitch))
    {
        ThrowUsage(L"the host would take the group name '" + name + L"' for its switch /startservices");
    }
}

std::optional<std::wstring> CanonicalClsid(const std::wstring& text)
{
    constexpr int kBufferLength = 39; // 32 digits, 4 hyphens, 2 braces and the terminator.
    CLSID clsid{};
    if (text.size() != kBufferLength - 1 || text.front() != L'{' ||
        FAILED(::CLSIDFromString(text.c_str(), &clsid)))
    {
        return std::nullopt;
    }
    wchar_t canonical[kBufferLength] = {};
    if (::StringFromGUID2(clsid, canonical, kBufferLength) == 0)
    {
        return std::nullopt;
    }
    return canonical;
}

std::wstring AbsolutePath(const std::wstring& path)
{
    std::wstring absolute = TxSdk::FullPath(path);
    if (absolute.empty())
    {
        ThrowFailure(L"find the full path of", path, ::GetLastError());
    }
    return absolute;
}

} // namespace TxCtl
