#include "txsvcctl/check/CheckTools.h"

#include <windows.h>

#include <algorithm>
#include <numeric>

#include "TxLogSecurity.h"
#include "txsvcctl/common/Names.h"

namespace TxCtl
{

namespace
{

/// Letters to insert, delete or replace to make one of the other (Levenshtein), in any case.
std::size_t Distance(const std::wstring& from, const std::wstring& to)
{
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i)
    {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 1; j <= to.size(); ++j)
        {
            const bool isSame = IsSameName(from.substr(i - 1, 1), to.substr(j - 1, 1));
            const std::size_t replaced = diagonal + (isSame ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, diagonal + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

} // namespace

bool HoldsName(const std::vector<std::wstring>& names, const std::wstring& name) noexcept
{
    return std::ranges::any_of(names, [&name](const std::wstring& one) { return IsSameName(one, name); });
}

std::wstring DidYouMean(const std::wstring& name, const std::vector<std::wstring>& known)
{
    const auto nearest =
        std::ranges::min_element(known, {}, [&name](const std::wstring& one) { return Distance(name, one); });
    const std::size_t most = std::max<std::size_t>(1, name.size() / 3);
    return nearest != known.end() && Distance(name, *nearest) <= most ? L": did you mean '" + *nearest + L"'?"
                                                                      : std::wstring();
}

std::wstring ServiceSubject(const std::wstring& group, const std::wstring& service)
{
    return group + L"/" + service;
}

std::wstring FolderOf(const std::wstring& path)
{
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

const ModuleCheck& CFileChecks::Module(const std::wstring& path)
{
    const auto [check, isNew] = m_modules.try_emplace(path);
    if (isNew)
    {
        check->second = CheckModuleFile(path);
    }
    return check->second;
}

bool CFileChecks::CanUsersWrite(const std::wstring& path)
{
    const auto [answer, isNew] = m_writable.try_emplace(path);
    if (isNew)
    {
        const TxSdk::Detail::COpenFolder object(path.c_str());
        const DWORD status = TxSdk::Detail::CheckSecurity(object.Get(), SE_FILE_OBJECT);
        answer->second = status == ERROR_INVALID_OWNER || status == ERROR_INVALID_ACL;
    }
    return answer->second;
}

} // namespace TxCtl
