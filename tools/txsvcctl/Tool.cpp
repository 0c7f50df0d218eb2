#include "txsvcctl/Tool.h"

#include <CLI/CLI.hpp>
#include <exception>

#include "txsvcctl/check/CheckCommand.h"
#include "txsvcctl/check/ListCommand.h"
#include "txsvcctl/common/Help.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/host/HostCommands.h"
#include "txsvcctl/host/StatusCommand.h"
#include "txsvcctl/host/VersionCommand.h"
#include "txsvcctl/log/LogCommands.h"
#include "txsvcctl/project/NewCommand.h"
#include "txsvcctl/service/ServiceCommands.h"
#include "txsvcctl/setup/SetupCommand.h"
#include "txsvcctl/transfer/TransferCommands.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kUsageHint[] = L"\nRun 'txsvcctl --help' or 'txsvcctl COMMAND --help' for the usage.";

/// A console from which --quiet takes what need not be said.
class CQuietableConsole final : public IConsole
{
public:
    explicit CQuietableConsole(IConsole& console) : m_console(console) {}

    [[nodiscard]] bool& IsQuiet() noexcept { return m_isQuiet; }

    void Out(const std::wstring& text) override { m_console.Out(text); }
    void Done(const std::wstring& text) override { m_isQuiet ? void() : m_console.Done(text); }
    void Repaint(const std::wstring& text) override { m_console.Repaint(text); }
    void Error(const std::wstring& text) override { m_console.Error(text); }
    void Note(const std::wstring& text) override { m_isQuiet ? void() : m_console.Note(text); }
    void Progress(const std::wstring& text) override { m_isQuiet ? void() : m_console.Progress(text); }
    std::wstring Toned(const std::wstring& text, Tone tone) override { return m_console.Toned(text, tone); }
    bool HasFailed() const noexcept override { return m_console.HasFailed(); }

private:
    IConsole& m_console;
    bool m_isQuiet = false;
};

/// Every command has it, behind its own options.
void AddQuiet(CLI::App& command, bool& isQuiet)
{
    command.add_flag("--quiet", isQuiet, "Print errors and what was asked for, nothing else");
    for (CLI::App* const one : command.get_subcommands({}))
    {
        AddQuiet(*one, isQuiet);
    }
}

/// The library ends its texts with a line feed, the console adds one.
std::wstring LinesOf(const std::string& text)
{
    std::wstring lines = FromUtf8(text);
    lines.erase(lines.find_last_not_of(L'\n') + 1);
    return lines;
}

void Parse(CLI::App& app, std::vector<std::wstring> arguments)
{
    arguments = WithHelpOption(std::move(arguments));
    std::vector<std::string> reversed; // The library takes them from the back.
    for (auto argument = arguments.rbegin(); argument != arguments.rend(); ++argument)
    {
        reversed.push_back(ToUtf8(*argument));
    }
    app.parse(std::move(reversed));
}

ExitCode Run(const std::vector<std::wstring>& arguments, IConsole& output)
{
    CQuietableConsole console(output);
    CLI::App app("Registers, controls and shows the services of the Tarvex Shared Service Host.", "txsvcctl");
    // Options begin with hyphens only: "/name" is then seen as the wrong name it is, not as an unknown
    // option.
    app.allow_windows_style_options(false);
    app.require_subcommand(0, 1); // With (1) a mistyped command would be called a missing one.
    app.set_version_flag("--version", TX_VERSION);
    app.formatter(HelpFormatter());
    app.footer("Exit codes: 0 done, 1 findings, 2 wrong usage, 3 denied or another error.");
    AddServiceCommands(
        app, console, [&console](const std::wstring& service) { ExplainService(service, console); });
    AddListCommand(app, console);
    AddTransferCommands(app, console);
    AddStatusCommand(app, console);
    AddVersionCommand(app, console);
    AddCheckCommand(app, console);
    AddHostCommands(app, console);
    AddLogCommands(app, console);
    AddSetupCommands(app, console);
    AddNewCommand(app, console);
    AddQuiet(app, console.IsQuiet());
    try
    {
        Parse(app, arguments);
        if (app.get_subcommands().empty())
        {
            ThrowUsage(std::wstring(L"a command is missing") + kUsageHint);
        }
    }
    catch (const CLI::CallForHelp&)
    {
        console.Out(LinesOf(app.help()));
    }
    catch (const CLI::CallForVersion& version)
    {
        console.Out(LinesOf(version.what()));
    }
    catch (const CLI::ParseError& error)
    {
        ThrowUsage(LinesOf(error.what()) + kUsageHint);
    }
    return ExitCode::Success;
}

} // namespace

ExitCode RunTool(const std::vector<std::wstring>& arguments, IConsole& console) noexcept
try
{
    return Run(arguments, console);
}
catch (const CToolError& error)
{
    ReportError(console, error);
    return error.Code();
}
catch (const std::exception& error)
{
    ReportError(console, CToolError(ExitCode::Failed, FromUtf8(error.what())));
    return ExitCode::Failed;
}

} // namespace TxCtl
