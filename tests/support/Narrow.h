#pragma once

#include <string>

#include "txsvcctl/common/Utf8.h"

/// UTF-16 to UTF-8, for what a test prints.
[[nodiscard]] inline std::string Narrow(const std::wstring& text)
{
    return TxCtl::ToUtf8(text);
}
