#pragma once

#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;           // NOLINT(readability-identifier-naming): the library's own names.
class FormatterBase; // NOLINT(readability-identifier-naming)
} // namespace CLI

namespace TxCtl
{

/// "help start" and "start /?" become "start --help".
[[nodiscard]] std::vector<std::wstring> WithHelpOption(std::vector<std::wstring> arguments);

/// The library's form of help with the command's examples above its options.
[[nodiscard]] std::shared_ptr<CLI::FormatterBase> HelpFormatter();

} // namespace TxCtl
