#pragma once

#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

struct Cell
{
    std::wstring text;
    Tone tone = Tone::Plain;
};

/// Rows whose columns stand below each other, two blanks apart.
/// @param indent in front of each row.
[[nodiscard]] std::wstring FormatTable(
    const std::vector<std::vector<Cell>>& rows, IConsole& console, const wchar_t* indent = L"");

} // namespace TxCtl
