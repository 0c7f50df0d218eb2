#include "txsvcctl/LogCommands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/LogStore.h"
#include "txsvcctl/ToolError.h"
#include "txsvcctl/Utf8.h"
#include "txsvcctl/ViewLink.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

/// UTF-8, from the command-line library.
struct Arguments
{
    std::optional<std::string> name;
    std::string value;
    bool replaceKey = false;
    bool json = false;
};

void SetLogSetting(const std::wstring& name, const std::wstring& value, bool replaceKey, IConsole& console)
{
    const CLogStore store;
    store.Check(name, value); // First of all: a mistyped command must not replace a key.
    EnsureViewLink(replaceKey, console);
    store.Set(name, value);
    console.Out(name + L" is now " + store.Get(name).value + L"; hosts read it when they start.");
}

std::wstring FormatSetting(const LogSettingReport& report)
{
    constexpr std::size_t kNameColumns = 11;
    std::wstring line = report.name;
    line.resize(kNameColumns, L' ');
    line += report.value;
    switch (report.state)
    {
    case LogValueState::Set:
        break;
    case LogValueState::Missing:
        line += L" (default: not set)";
        break;
    case LogValueState::Plain:
        line += L" (default: the stored value is plain, not scrambled)";
        break;
    case LogValueState::Damaged:
        line += L" (default: the stored value is damaged)";
        break;
    case LogValueState::Invalid:
        line += L" (default: the stored value is out of range)";
        break;
    }
    return line;
}

void GetLogSettings(const std::optional<std::wstring>& name, bool json, IConsole& console)
{
    const CLogStore store;
    std::wstring lines;
    ordered_json object = ordered_json::object();
    for (const std::wstring& setting : name ? std::vector{*name} : CLogStore::Names())
    {
        const LogSettingReport report = store.Get(setting);
        lines += (lines.empty() ? L"" : L"\n") + FormatSetting(report);
        object[ToUtf8(report.name)] = {
            {"value", ToUtf8(report.value)}, {"state", ToUtf8(StateName(report.state))}};
    }
    WarnAboutViewLink(console);
    console.Out(json ? FromUtf8(object.dump(2)) : lines);
}

} // namespace

void AddLogCommands(CLI::App& app, IConsole& console)
{
    CLI::App* const log = app.add_subcommand("log", "Show or change the logging settings of all groups");
    log->require_subcommand(0, 1); // With (1) a mistyped command would be called a missing one.
    log->callback([log] {
        if (log->get_subcommands().empty())
        {
            ThrowUsage(L"log needs a command: set or get");
        }
    });
    const auto arguments = std::make_shared<Arguments>();

    CLI::App* const set = log->add_subcommand("set", "Change a setting");
    set->add_option("name", arguments->name, "mechanism, level, fields or folder")->required();
    set->add_option("value", arguments->value, "Its value: see the reference")->required();
    set->add_flag("--replace-key", arguments->replaceKey, "Replace an ordinary key HKLM\\Software\\Tarvex");
    set->callback([arguments, &console] {
        SetLogSetting(FromUtf8(*arguments->name), FromUtf8(arguments->value), arguments->replaceKey, console);
    });

    CLI::App* const get = log->add_subcommand("get", "Show the settings and which of them are defaults");
    get->add_option("name", arguments->name, "Show this setting only");
    get->add_flag("--json", arguments->json, "Write JSON");
    get->callback([arguments, &console] {
        GetLogSettings(OptionalFromUtf8(arguments->name), arguments->json, console);
    });
}

} // namespace TxCtl
