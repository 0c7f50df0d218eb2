#include "txsvcctl/service/RegistryNames.h"

#include "contract/Keys.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

/// The registry's limit for a value's name, in characters; a key's name is shorter.
constexpr DWORD kLongestName = 16383;

/// @param next fetches the name at an index into the buffer of the given length.
template <typename Next>
std::vector<std::wstring> Enumerate(const std::wstring& path, Next next)
{
    std::vector<std::wstring> names;
    std::wstring buffer(kLongestName + 1, L'\0');
    for (DWORD index = 0;; ++index)
    {
        auto length = static_cast<DWORD>(buffer.size());
        const LSTATUS status = next(index, buffer.data(), &length);
        if (status == ERROR_NO_MORE_ITEMS)
        {
            return names;
        }
        CheckStatus(static_cast<DWORD>(status), L"list the contents of registry key", path);
        names.push_back(buffer.substr(0, length));
    }
}

} // namespace

std::vector<std::wstring> SubKeyNames(const Basalt::CRegKey& key, const std::wstring& path)
{
    return Enumerate(path, [&key](DWORD index, wchar_t* name, DWORD* length) {
        return ::RegEnumKeyExW(key.Get(), index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

std::vector<std::wstring> ValueNames(const Basalt::CRegKey& key, const std::wstring& path)
{
    return Enumerate(path, [&key](DWORD index, wchar_t* name, DWORD* length) {
        return ::RegEnumValueW(key.Get(), index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

std::wstring HostPath()
{
    return Contract::In32BitView(Contract::kHostKey);
}

std::wstring GroupPath(const std::wstring& group)
{
    return Contract::GroupKey(HostPath(), group);
}

} // namespace TxCtl
