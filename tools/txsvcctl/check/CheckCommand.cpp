#include "txsvcctl/check/CheckCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "txsvcctl/check/Findings.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/ImagePath.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> name;
    std::optional<std::string> explained;
    bool fix = false;
    bool json = false;
};

/// The host that a service of the groups runs in; empty when none has an entry for its group.
std::wstring HostOf(const std::vector<GroupReport>& groups)
{
    for (const GroupReport& group : groups)
    {
        for (const ServiceReport& service : group.services)
        {
            const ImagePath image = ParseImagePath(service.entry ? service.entry->imagePath : L"");
            if (RunsGroup(image, group.name))
            {
                return image.program;
            }
        }
    }
    return {};
}

/// @param name of a group or a service; empty for everything.
CFindings Check(const std::wstring& name)
{
    CFindings findings;
    bool isFound = name.empty();
    const std::vector<GroupReport> groups = ReportGroups(std::nullopt);
    CheckMachine(findings);
    for (const GroupReport& group : groups)
    {
        const bool isGroup = name.empty() || IsSameName(group.name, name);
        if (isGroup || group.Find(name) != nullptr)
        {
            CheckGroup(group, isGroup ? L"" : name, findings);
            isFound = true;
        }
        if (isGroup && !name.empty())
        {
            CheckStrayEntries(groups, group.name, findings);
        }
    }
    if (!isFound)
    {
        ThrowUsage(L"there is no group or service '" + name + L"'");
    }
    if (name.empty())
    {
        CheckStrayEntries(groups, {}, findings);
    }
    CheckEventSource(HostOf(groups), findings);
    return findings;
}

ordered_json AsJson(const CFindings& findings)
{
    ordered_json array = ordered_json::array();
    for (const Finding& finding : findings.All())
    {
        array.push_back(
            {{"id", ToUtf8(FindingName(finding.kind->id))},
             {"severity", ToUtf8(SeverityName(finding.kind->severity))},
             {"title", ToUtf8(finding.kind->title)},
             {"subject", ToUtf8(finding.subject)},
             {"detail", ToUtf8(finding.detail)},
             {"remedy", ToUtf8(finding.kind->remedy)},
             {"canBeFixed", static_cast<bool>(finding.mend)}});
    }
    return {{"version", 1}, {"findings", std::move(array)}};
}

std::wstring Line(const Finding& finding, IConsole& console)
{
    const Severity severity = finding.kind->severity;
    const Tone tone = severity == Severity::Error     ? Tone::Bad
                      : severity == Severity::Warning ? Tone::Doubtful
                                                      : Tone::Plain;
    return FindingName(finding.kind->id) + L" " + console.Toned(SeverityName(severity), tone) + L": " +
           finding.kind->title + (finding.subject.empty() ? L"" : L"\n  " + finding.subject) + L": " +
           finding.detail + L"\n  to do: " + finding.kind->remedy;
}

/// @return what is left.
void Fix(const CFindings& findings, IConsole& console)
{
    for (const Finding& finding : findings.All())
    {
        if (finding.mend)
        {
            finding.mend();
            console.Out(L"mended " + FindingName(finding.kind->id) + L": " + finding.subject);
        }
    }
}

/// Notes do not count; what could not be read counts most.
ExitCode CodeFor(const CFindings& findings)
{
    auto code = ExitCode::Success;
    for (const Finding& finding : findings.All())
    {
        if (finding.kind->id == FindingId::Unreadable)
        {
            return ExitCode::Failed;
        }
        code = finding.kind->severity == Severity::Note ? code : ExitCode::Findings;
    }
    return code;
}

void Run(const Arguments& arguments, IConsole& console)
{
    if (arguments.explained)
    {
        const std::wstring name = FromUtf8(*arguments.explained);
        console.Out(IsSameName(name, L"all") ? FindingsPage() : ExplainFinding(name));
        return;
    }
    const std::wstring name = FromUtf8(arguments.name.value_or(""));
    CFindings findings = Check(name);
    if (arguments.fix)
    {
        Fix(findings, console);
        findings = Check(name);
    }
    if (arguments.json)
    {
        console.Out(FromUtf8(AsJson(findings).dump(2)));
    }
    else
    {
        for (const Finding& finding : findings.All())
        {
            console.Out(Line(finding, console));
        }
        if (findings.All().empty())
        {
            console.Out(L"Nothing is wrong.");
        }
    }
    if (const ExitCode code = CodeFor(findings); code != ExitCode::Success)
    {
        throw CToolError(code, {}); // Said already.
    }
}

} // namespace

void ExplainService(const std::wstring& service, IConsole& console)
try
{
    CFindings findings;
    for (const GroupReport& group : ReportGroups(std::nullopt))
    {
        if (group.Find(service) != nullptr)
        {
            CheckGroup(group, service, findings);
        }
    }
    for (const Finding& finding : findings.All())
    {
        if (finding.kind->severity == Severity::Error)
        {
            console.Error(Line(finding, console));
        }
    }
}
catch (const CToolError& error)
{
    ReportError(console, error);
}

void AddCheckCommand(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("check", "Report what would go wrong, and what to do about it");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("name", arguments->name, "A group or a service [everything]");
    command->add_flag("--fix", arguments->fix, "Mend what is safe to mend");
    command->add_flag("--json", arguments->json, "Write JSON");
    command->add_option("--explain", arguments->explained, "Explain a finding (TX0101), or all of them");
    command->footer(
        "Exit codes: 0 nothing to do, 1 findings, 2 wrong usage, 3 something could not be read or mended.");
    command->callback([arguments, &console] { Run(*arguments, console); });
}

} // namespace TxCtl
