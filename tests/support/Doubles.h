#pragma once

#include <string>

#include "support/TestFolder.h"

/// Full path of a signed copy of a test double; the variants are those of sign-test-files.sh.
[[nodiscard]] inline std::wstring SignedDouble(const std::wstring& variant, const std::wstring& name)
{
    return BesideTest(L"doubles\\" + variant + L"\\" + name);
}
