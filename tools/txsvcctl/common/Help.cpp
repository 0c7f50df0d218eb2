#include "txsvcctl/common/Help.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "txsvcctl/common/Names.h"

namespace TxCtl
{

namespace
{

struct Examples
{
    const char* command; ///< As help calls it.
    const char* lines;
};

constexpr Examples kExamples[] = {
    {"txsvcctl",
     "  txsvcctl install CORE alpha --clsid {0D1A4C5E-1F5B-4C0B-9B52-6A0E3F6D7A11} --module "
     "C:\\P\\alpha.dll\n"
     "  txsvcctl start alpha\n"
     "  txsvcctl status\n"
     "  txsvcctl check\n"
     "  txsvcctl help install\n"},
    {"txsvcctl install",
     "  txsvcctl install CORE alpha --clsid {0D1A4C5E-1F5B-4C0B-9B52-6A0E3F6D7A11} --module "
     "C:\\P\\alpha.dll\n"
     "  txsvcctl install CORE alpha ... --start auto --depends EventLog --description \"Sells tickets\"\n"
     "  txsvcctl install CORE alpha ... --account DOMAIN\\user < password.txt\n"},
    {"txsvcctl remove", "  txsvcctl remove CORE alpha\n"},
    {"txsvcctl list",
     "  txsvcctl list\n"
     "  txsvcctl list CORE --json\n"},
    {"txsvcctl start",
     "  txsvcctl start alpha beta\n"
     "  txsvcctl start --group CORE --timeout 60\n"},
    {"txsvcctl restart",
     "  txsvcctl restart alpha\n"
     "  txsvcctl restart --group CORE --quiet\n"},
    {"txsvcctl stop",
     "  txsvcctl stop alpha\n"
     "  txsvcctl stop --group CORE\n"},
    {"txsvcctl export",
     "  txsvcctl export > machine.json\n"
     "  txsvcctl export CORE > core.json\n"},
    {"txsvcctl import",
     "  txsvcctl import core.json --dry-run\n"
     "  txsvcctl import core.json\n"
     "  txsvcctl import core.json < passwords.txt\n"},
    {"txsvcctl version",
     "  txsvcctl version\n"
     "  txsvcctl version --json\n"},
    {"txsvcctl status",
     "  txsvcctl status\n"
     "  txsvcctl status CORE --watch\n"
     "  txsvcctl status alpha --json\n"},
    {"txsvcctl check",
     "  txsvcctl check\n"
     "  txsvcctl check CORE --fix\n"
     "  txsvcctl check --explain TX0101\n"},
    {"txsvcctl config",
     "  txsvcctl config get\n"
     "  txsvcctl config set WSSCpuLimit 7\n"},
    {"txsvcctl config get",
     "  txsvcctl config get\n"
     "  txsvcctl config get WSSCpuLimit --json\n"},
    {"txsvcctl config set", "  txsvcctl config set WSSCpuLimit 7\n"},
    {"txsvcctl config unset", "  txsvcctl config unset WSSCpuLimit\n"},
    {"txsvcctl band",
     "  txsvcctl band CORE\n"
     "  txsvcctl band CORE --reset\n"},
    {"txsvcctl oobe",
     "  txsvcctl oobe\n"
     "  txsvcctl oobe exclude alpha\n"},
    {"txsvcctl oobe exclude", "  txsvcctl oobe exclude alpha\n"},
    {"txsvcctl oobe include", "  txsvcctl oobe include alpha\n"},
    {"txsvcctl trim", "  txsvcctl trim CORE\n"},
    {"txsvcctl log",
     "  txsvcctl log set mechanism file\n"
     "  txsvcctl log show --follow\n"},
    {"txsvcctl log set",
     "  txsvcctl log set mechanism file\n"
     "  txsvcctl log set level 1\n"},
    {"txsvcctl log unset", "  txsvcctl log unset level\n"},
    {"txsvcctl log get",
     "  txsvcctl log get\n"
     "  txsvcctl log get level --json\n"},
    {"txsvcctl log show",
     "  txsvcctl log show --level 4 --since 2h\n"
     "  txsvcctl log show --service alpha --follow\n"},
    {"txsvcctl log trace", "  txsvcctl log trace C:\\Temp\\TxLog.etl --level 4\n"},
};

class CHelpFormatter final : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        const auto* const found = std::ranges::find(kExamples, name, &Examples::command);
        const std::string examples =
            found == std::end(kExamples) ? "" : std::string("\nExamples:\n") + found->lines + "\n";
        return examples + Formatter::make_usage(app, std::move(name));
    }
};

} // namespace

std::vector<std::wstring> WithHelpOption(std::vector<std::wstring> arguments)
{
    const std::wstring option = L"--help";
    std::ranges::replace(arguments, L"/?", option);
    if (!arguments.empty() && IsSameName(arguments.front(), L"help"))
    {
        arguments.erase(arguments.begin());
        arguments.push_back(option);
    }
    return arguments;
}

std::shared_ptr<CLI::FormatterBase> HelpFormatter()
{
    return std::make_shared<CHelpFormatter>();
}

} // namespace TxCtl
