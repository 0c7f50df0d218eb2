#include "txsvcctl/common/Table.h"

#include <algorithm>

namespace TxCtl
{

std::wstring FormatTable(const std::vector<std::vector<Cell>>& rows, IConsole& console, const wchar_t* indent)
{
    constexpr std::size_t kGap = 2;
    std::vector<std::size_t> widths;
    for (const std::vector<Cell>& row : rows)
    {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], row[i].text.size());
        }
    }
    std::wstring text;
    for (const std::vector<Cell>& row : rows)
    {
        std::wstring line = indent;
        std::size_t blanks = 0; // Not printed at the end of a line.
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            if (!row[i].text.empty())
            {
                line += std::wstring(blanks, L' ') + console.Toned(row[i].text, row[i].tone);
                blanks = 0;
            }
            blanks += widths[i] - row[i].text.size() + kGap;
        }
        text += (text.empty() ? L"" : L"\n") + line;
    }
    return text;
}

} // namespace TxCtl
