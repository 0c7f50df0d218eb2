#include "txsvcctl/transfer/TransferCommands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/common/ViewLink.h"
#include "txsvcctl/transfer/Document.h"
#include "txsvcctl/transfer/Import.h"

namespace TxCtl
{

namespace
{

void Export(const std::optional<std::wstring>& group, IConsole& console)
{
    constexpr int kIndent = 2;
    WarnAboutViewLink(console);
    bool isWhole = true;
    const nlohmann::ordered_json json = DocumentAsJson(ReadMachine(group, isWhole, console));
    // In ASCII, which every shell's redirection leaves alone.
    console.Out(FromUtf8(json.dump(kIndent, ' ', true)));
    if (!isWhole)
    {
        throw CToolError(ExitCode::Findings, {});
    }
}

} // namespace

void AddTransferCommands(CLI::App& app, IConsole& console)
{
    CLI::App* const out =
        app.add_subcommand("export", "Write services and settings as a document for import");
    const auto group = std::make_shared<std::optional<std::string>>();
    out->add_option("group", *group, "This group and the host's settings [everything]");
    out->callback([group, &console] { Export(OptionalFromUtf8(*group), console); });

    CLI::App* const in = app.add_subcommand("import", "Make services and settings what a document says");
    const auto request = std::make_shared<ImportRequest>();
    const auto file = std::make_shared<std::string>();
    in->add_option("file", *file, "What export wrote")->required();
    in->add_flag("--dry-run", request->isDryRun, "Show what would change, change nothing");
    in->add_flag("--json", request->isJson, "Show the changes as JSON");
    in->add_flag("--replace-key", request->replaceKey, "Replace an ordinary key HKLM\\Software\\Tarvex");
    in->add_flag("--replace-module", request->replaceModule, "Redirect classes that have another module");
    in->callback([request, file, &console] {
        request->file = FromUtf8(*file);
        Import(*request, console);
    });
}

} // namespace TxCtl
