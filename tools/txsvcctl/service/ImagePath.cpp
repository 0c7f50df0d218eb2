#include "txsvcctl/service/ImagePath.h"

#include <algorithm>

#include "contract/CommandLine.h"
#include "txsvcctl/common/Names.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kQuote = L'"';

std::wstring WithoutQuotes(std::wstring text)
{
    text.erase(std::remove(text.begin(), text.end(), kQuote), text.end());
    return text;
}

} // namespace

std::wstring FormatImagePath(const std::wstring& program, const std::wstring& group)
{
    std::wstring argument = Contract::kGroupDelimiter + group;
    if (argument.find(L' ') != std::wstring::npos)
    {
        argument = kQuote + argument + kQuote;
    }
    return kQuote + program + kQuote + L' ' + argument;
}

ImagePath ParseImagePath(const std::wstring& text)
{
    const std::size_t start = std::min(text.size(), text.find_first_not_of(L' '));
    const bool isQuoted = start < text.size() && text[start] == kQuote;
    const std::size_t end =
        std::min(text.size(), isQuoted ? text.find(kQuote, start + 1) : text.find(L' ', start));

    const std::size_t argument = std::min(text.size(), text.find_first_not_of(L"\" ", end));
    const std::size_t last = text.find_last_not_of(L"\" ");
    std::wstring rest;
    if (argument < text.size())
    {
        rest = text.substr(argument, last + 1 - argument);
    }
    return {WithoutQuotes(text.substr(start, end - start)), rest};
}

bool RunsGroup(const ImagePath& imagePath, const std::wstring& group)
{
    return IsSameName(imagePath.argument, Contract::kGroupDelimiter + group);
}

} // namespace TxCtl
