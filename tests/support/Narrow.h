#pragma once

#include <string>

/// UTF-16 to UTF-8, for what a test prints.
[[nodiscard]] std::string Narrow(const std::wstring& text);
