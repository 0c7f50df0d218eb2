#include "contract/ServiceList.h"

namespace Contract
{

std::vector<std::wstring> SplitServiceList(const std::wstring& list)
{
    constexpr wchar_t kSeparators[] = L";:,";
    std::vector<std::wstring> names;
    std::size_t start = list.find_first_not_of(kSeparators);
    while (start != std::wstring::npos)
    {
        const std::size_t end = list.find_first_of(kSeparators, start);
        names.push_back(list.substr(start, end - start));
        start = list.find_first_not_of(kSeparators, end);
    }
    return names;
}

std::wstring JoinServiceList(const std::vector<std::wstring>& names)
{
    std::wstring list;
    for (const std::wstring& name : names)
    {
        list += (list.empty() ? L"" : L";") + name;
    }
    return list;
}

} // namespace Contract
