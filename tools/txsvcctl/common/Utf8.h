#pragma once

#include <optional>
#include <string>

namespace TxCtl
{

/// The command-line and JSON libraries work on narrow text; everything else here on UTF-16. Half a surrogate
/// pair or a broken sequence becomes U+FFFD.
[[nodiscard]] std::wstring FromUtf8(const std::string& text);
[[nodiscard]] std::optional<std::wstring> OptionalFromUtf8(const std::optional<std::string>& text);
[[nodiscard]] std::string ToUtf8(const std::wstring& text);

} // namespace TxCtl
