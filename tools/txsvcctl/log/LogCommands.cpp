#include "txsvcctl/log/LogCommands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/Table.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/log/LogStore.h"
#include "txsvcctl/log/LogView.h"

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
    std::optional<std::string> ini;
    bool replaceKey = false;
    bool json = false;

    [[nodiscard]] CLogStore Store() const
    {
        return ini ? CLogStore(AbsolutePath(FromUtf8(*ini))) : CLogStore();
    }
};

/// What hosts will find now, and when they look.
void ReportChange(const CLogStore& store, const std::wstring& name, IConsole& console)
{
    const LogSettingReport report = store.Get(name);
    if (report.origin == ETWLogging::LogSettingOrigin::IniFile)
    {
        console.Done(
            L"The registry is changed, but log.ini, which comes first, says " + name + L" is " +
            report.value + L".");
        return;
    }
    console.Done(
        name + L" is now " + report.value +
        (CLogStore::TakesEffectAtOnce(name) ? L"; running hosts take it up."
                                            : L"; hosts read it when they start."));
}

void SetLogSetting(const Arguments& arguments, IConsole& console)
{
    const CLogStore store = arguments.Store();
    const std::wstring name = FromUtf8(arguments.name.value_or(std::string()));
    const std::wstring value = FromUtf8(arguments.value);
    store.Check(name, value); // First of all: a mistyped command must not replace a key.
    EnsureViewLink(arguments.replaceKey, console);
    store.Set(name, value);
    ReportChange(store, name, console);
    if (IsSameName(name, L"mechanism") && IsSameName(value, L"file"))
    {
        store.TakeDefaultFolder(); // Last: whoever may not change the settings must not own it.
    }
}

void UnsetLogSetting(const Arguments& arguments, IConsole& console)
{
    const CLogStore store = arguments.Store();
    const std::wstring name = FromUtf8(arguments.name.value_or(std::string()));
    if (!store.Unset(name))
    {
        console.Done(name + L" was not set in the registry.");
        return;
    }
    ReportChange(store, name, console);
}

std::vector<Cell> SettingRow(const LogSettingReport& report)
{
    const bool isUsable = report.unusable.empty();
    return {
        {report.name},
        {report.value + L" (" + OriginName(report.origin) +
             (isUsable ? L"" : L"; cannot be used: " + report.unusable) + L")",
         isUsable ? Tone::Plain : Tone::Bad}};
}

void GetLogSettings(const Arguments& arguments, IConsole& console)
{
    const CLogStore store = arguments.Store();
    std::vector<std::vector<Cell>> rows;
    ordered_json settings = ordered_json::object();
    for (const std::wstring& setting :
         arguments.name ? std::vector{FromUtf8(*arguments.name)} : CLogStore::Names())
    {
        const LogSettingReport report = store.Get(setting);
        rows.push_back(SettingRow(report));
        ordered_json& entry = settings[ToUtf8(report.name)];
        entry = {{"value", ToUtf8(report.value)}, {"origin", ToUtf8(OriginName(report.origin))}};
        if (!report.unusable.empty())
        {
            entry["unusable"] = ToUtf8(report.unusable);
        }
    }
    WarnAboutViewLink(console);
    console.Out(
        arguments.json ? FromUtf8(ordered_json{{"version", 1}, {"settings", settings}}.dump(2))
                       : FormatTable(rows, console));
}

} // namespace

void AddLogCommands(CLI::App& app, IConsole& console)
{
    CLI::App* const log = app.add_subcommand("log", "Show or change the logging settings of all groups");
    log->require_subcommand(0, 1); // With (1) a mistyped command would be called a missing one.
    log->callback([log] {
        if (log->get_subcommands().empty())
        {
            ThrowUsage(L"log needs a command: set, unset, get, show or trace");
        }
    });
    const auto arguments = std::make_shared<Arguments>();
    const auto add = [log, arguments](const char* name, const char* text) {
        CLI::App* const command = log->add_subcommand(name, text);
        command->add_option("--ini", arguments->ini, "The hosts' log.ini [beside this program]");
        return command;
    };

    CLI::App* const set = add("set", "Change a setting in the registry");
    set->add_option("name", arguments->name, "mechanism, level, fields, folder ...: see the reference")
        ->required();
    set->add_option("value", arguments->value, "Its value: see the reference")->required();
    set->add_flag("--replace-key", arguments->replaceKey, "Replace an ordinary key HKLM\\Software\\Tarvex");
    set->callback([arguments, &console] { SetLogSetting(*arguments, console); });

    CLI::App* const unset = add("unset", "Remove a setting from the registry");
    unset->add_option("name", arguments->name, "As for set")->required();
    unset->callback([arguments, &console] { UnsetLogSetting(*arguments, console); });

    CLI::App* const get = add("get", "Show the settings and where each comes from");
    get->add_option("name", arguments->name, "Show this setting only");
    get->add_flag("--json", arguments->json, "Write JSON");
    get->callback([arguments, &console] { GetLogSettings(*arguments, console); });

    AddViewCommands(*log, console);
}

} // namespace TxCtl
