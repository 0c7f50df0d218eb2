#include "txsvcctl/check/FindingKinds.h"

#include <algorithm>
#include <stdexcept>

#include "base/Text.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

constexpr FindingKind kKinds[] = {
    {FindingId::Unreadable,
     Severity::Error,
     L"Something cannot be read",
     L"What depends on it was not checked. Access to it is denied, or a value has another type than the host "
     L"reads.",
     L"Run check as an administrator; rewrite or delete a value of a wrong type."},
    {FindingId::LinkMissing,
     Severity::Warning,
     L"The registry link is missing",
     L"A host reads its settings through HKLM\\Software\\Tarvex, a link to the 32-bit key. It makes the link "
     L"at "
     L"its first start; until then it, and everybody else, reads nothing.",
     L"Start a service of the host once, or let --fix make the link."},
    {FindingId::LinkBlocked,
     Severity::Error,
     L"An ordinary key stands in the link's place",
     L"The next start of a host replaces the key HKLM\\Software\\Tarvex, and with it all that is in it, by "
     L"the "
     L"link. What is in there now is not what the host will read.",
     L"Save what you need of the key, then run install with --replace-key."},
    {FindingId::LinkElsewhere,
     Severity::Error,
     L"The registry link leads elsewhere",
     L"Hosts read their settings in another place than the one that this program shows and changes.",
     L"Find out who made the link; install with --replace-key puts the right one there."},
    {FindingId::SettingUnusable,
     Severity::Warning,
     L"A setting of the host cannot be used",
     L"The value is of another type or out of its range. The host takes no notice of it and uses the "
     L"default.",
     L"Run config set with a number in the range, or let --fix delete the value."},
    {FindingId::UnknownValue,
     Severity::Warning,
     L"A value has an unknown name",
     L"Nobody reads it. Most likely the name is misspelt, and the setting that was meant has its default.",
     L"Rename or delete the value."},
    {FindingId::NoServices,
     Severity::Warning,
     L"A group has no services",
     L"A host that is started for it ends at once with error 87, and no service has run.",
     L"Install services into the group, or delete its key."},
    {FindingId::NoClsid,
     Severity::Error,
     L"A service has no CLSID",
     L"The group's list names the service, but the group's key has no value of its name that says which "
     L"class "
     L"implements it. Its start fails.",
     L"Run install for the service, or remove."},
    {FindingId::BadClsid,
     Severity::Error,
     L"A service's CLSID is none",
     L"The text in the group's key is not of the form {01234567-89AB-CDEF-0123-456789ABCDEF}. The service's "
     L"start fails.",
     L"Run install for the service with the right --clsid."},
    {FindingId::ClassUnknown,
     Severity::Error,
     L"A service's class is not registered",
     L"HKCR\\CLSID has no InprocServer32 with a module for it in the 64-bit view. The service's start fails.",
     L"Run install for the service, or register its module (regsvr32, where the module can do it)."},
    {FindingId::ModuleUnreadable,
     Severity::Error,
     L"A module cannot be read",
     L"The file that the class is registered for is missing, or access to it is denied. The service's start "
     L"fails when the host may not read it either.",
     L"Put the file there, or run install for the service with the right --module."},
    {FindingId::ModuleUnusable,
     Severity::Error,
     L"A module is none for the host",
     L"A module must be a 64-bit (x64) DLL that exports DllGetClassObject. The service's start fails.",
     L"Build or choose the right file, then run install for the service with its --module."},
    {FindingId::ModuleWritable,
     Severity::Error,
     L"Ordinary users can change a module",
     L"The file or its folder can be written by users without administrator's rights: whoever does so runs "
     L"code "
     L"with the service's rights.",
     L"Take the right away (icacls), or install the module below Program Files."},
    {FindingId::InOtherGroup,
     Severity::Warning,
     L"A service is in two groups",
     L"The service manager runs it in the host that its entry names. In the other group it is dead weight, "
     L"and "
     L"that group's update stop reaches it too.",
     L"Remove it from the group that its entry does not name."},
    {FindingId::NotInList,
     Severity::Warning,
     L"A service has a CLSID but is not in the group's list",
     L"The host makes only services of the list known; the service manager waits in vain for this one.",
     L"Run install for the service, or delete the value."},
    {FindingId::NoEntry,
     Severity::Error,
     L"A service has no entry in the service manager",
     L"Nobody can start it.",
     L"Run install for the service, or remove."},
    {FindingId::NotShared,
     Severity::Error,
     L"An entry is not of a share-process service",
     L"The service manager then runs it in a process of its own, beside the host of its group.",
     L"Stop the service, then let --fix change the entry."},
    {FindingId::OtherGroupsEntry,
     Severity::Error,
     L"An entry runs something else",
     L"The entry's command line is not that of a host for this group, so another program or group is "
     L"started.",
     L"Delete the entry (sc delete SERVICE) unless another program needs it, then run install for the "
     L"service."},
    {FindingId::ProgramMissing,
     Severity::Error,
     L"An entry's program is missing",
     L"The service's start fails with error 2.",
     L"Put the host there, or run install for the service with the right --host."},
    {FindingId::PathUnquoted,
     Severity::Warning,
     L"An entry's program stands without quotes",
     L"Windows tries every part of a path with blanks as a program: who can write C:\\Program.exe gets the "
     L"service's rights.",
     L"Let --fix put the quotes there, or run install."},
    {FindingId::AccountsDiffer,
     Severity::Error,
     L"Services of one group have different accounts",
     L"All services of a process run under one account. Windows refuses the start of the one that differs "
     L"from "
     L"the first (error 1079).",
     L"Give all services of the group the same account (sc config SERVICE obj= ACCOUNT)."},
    {FindingId::SidTypesDiffer,
     Severity::Error,
     L"Only some services of a group have a restricted SID",
     L"Windows refuses to run services with and without a restricted SID in one process (error 1290).",
     L"Run install with --sid restricted for all of the group, or for none."},
    {FindingId::Disabled,
     Severity::Note,
     L"A service is disabled",
     L"Its start fails with error 1058, as somebody wanted it.",
     L"Run install for the service with --start, or sc config SERVICE start= demand."},
    {FindingId::ProgramWritable,
     Severity::Error,
     L"Ordinary users can change the host",
     L"The program or its folder can be written by users without administrator's rights: whoever does so "
     L"runs "
     L"code with the services' rights.",
     L"Take the right away (icacls), or install below Program Files."},
    {FindingId::StrayEntry,
     Severity::Error,
     L"An entry runs a group that does not list the service",
     L"The host makes only services of the list known. The service's start fails (error 1083), or the host "
     L"ends with error 87 when it has no list.",
     L"Run remove for the service, and install if it is needed."},
    {FindingId::WaitsForFirstRun,
     Severity::Note,
     L"A group waits for the first-run set-up",
     L"Until the product's set-up has enabled the services, those that are not excluded stop again right "
     L"after "
     L"their start, without an error.",
     L"Finish the set-up, exclude services, or set IsOobeCheckRequired to 0."},
    {FindingId::ExclusionUnknown,
     Severity::Warning,
     L"The exclusion list names a service that the group does not have",
     L"Most likely the name is misspelt, and the service that was meant waits for the first-run set-up.",
     L"Delete the value in OobeExclusionList, and run oobe exclude for the right name."},
    {FindingId::UpdateRunning,
     Severity::Note,
     L"The update manager is running",
     L"While it installs an update, a host that starts ends at once; the services run again afterwards.",
     L"Wait for the update's end."},
    {FindingId::UpdateClientSilent,
     Severity::Warning,
     L"The update manager runs but its client does not answer",
     L"A host that starts cannot learn whether an update is being installed, and runs its services in the "
     L"middle of it.",
     L"Mend what is reported of the proxy (TX0801 to TX0803), and see that the update client runs "
     L"(docs/update-client.md)."},
    {FindingId::LogSettingUnusable,
     Severity::Warning,
     L"A setting of the log cannot be used",
     L"The value is damaged, of another type, stored in clear, or out of range; the logger uses the default.",
     L"Run log set or log unset for it; what log.ini says comes before the registry."},
    {FindingId::LogFolderUnusable,
     Severity::Error,
     L"The log's folder cannot be used",
     L"It is a link or a junction, no folder, or cannot be made: hosts write no text log.",
     L"Set another folder (log set folder PATH), or remove what stands there."},
    {FindingId::LogFolderWritable,
     Severity::Warning,
     L"Ordinary users can write the log's folder",
     L"They can delete or forge log files there.",
     L"Take the right away (icacls), or unset the folder: the default one is kept from them."},
    {FindingId::LogDiskFull,
     Severity::Warning,
     L"The log's disk is nearly full",
     L"Less than 100 MiB are free. Lines that do not fit are lost, and services may fail.",
     L"Make room, set another folder (log set folder PATH), or keep fewer files (log set old-files N)."},
    {FindingId::LogControllerNotTrusted,
     Severity::Warning,
     L"A log controller library is not trusted",
     L"The hosts do not load it: without a controller, no trace session records what they log.",
     L"Have it signed by the product's maker, or remove it (log unset controller:WSS when it is "
     L"configured)."},
    {FindingId::ProxyUnregistered,
     Severity::Warning,
     L"The interface of group control has no proxy",
     L"An updater in another process cannot stop the group; it falls back on the service manager.",
     L"Register TxSvHostPS.dll (docs/group-control.md)."},
    {FindingId::ProxyUnreadable,
     Severity::Warning,
     L"The proxy of group control cannot be read",
     L"An updater in another process cannot stop the group; it falls back on the service manager.",
     L"Put TxSvHostPS.dll where it is registered, or register it anew."},
    {FindingId::ProxyNotTrusted,
     Severity::Warning,
     L"The proxy of group control is not trusted",
     L"The host refuses every updater with error 5, and cannot ask the update client.",
     L"Put the product's own TxSvHostPS.dll there, signed by its maker (docs/trust-and-start.md)."},
    {FindingId::EventSourceUnusable,
     Severity::Warning,
     L"The event log has no texts for the hosts' events",
     L"The event viewer shows the hosts' events as unknown ids.",
     L"Let --fix register the host as the source, or run install for a service."},
};

std::wstring Text(const FindingKind& kind)
{
    return FindingName(kind.id) + L" (" + SeverityName(kind.severity) + L"): " + kind.title;
}

} // namespace

std::span<const FindingKind> FindingKinds() noexcept
{
    return kKinds;
}

const FindingKind& KindOf(FindingId id)
{
    const auto* const kind = std::ranges::find(kKinds, id, &FindingKind::id);
    if (kind == std::end(kKinds))
    {
        throw std::logic_error("a finding without a description");
    }
    return *kind;
}

std::wstring FindingName(FindingId id)
{
    return Basalt::FormatText(L"TX%04u", static_cast<unsigned>(id));
}

const wchar_t* SeverityName(Severity severity) noexcept
{
    constexpr const wchar_t* kNames[] = {L"note", L"warning", L"error"};
    return kNames[static_cast<std::size_t>(severity)];
}

std::wstring ExplainFinding(const std::wstring& name)
{
    for (const FindingKind& kind : kKinds)
    {
        if (IsSameName(FindingName(kind.id), name))
        {
            return Text(kind) + L"\n\n" + kind.meaning + L"\n\n" + kind.remedy;
        }
    }
    ThrowUsage(L"there is no finding '" + name + L"'");
}

std::wstring FindingsPage()
{
    std::wstring page =
        L"# Findings\n\nWhat `txsvcctl check` reports. This page is made by `txsvcctl check --explain "
        L"all`.\n\n"
        L"| Id | Severity | Finding | What it means | What to do |\n| --- | --- | --- | --- | --- |";
    for (const FindingKind& kind : kKinds)
    {
        page += L"\n| " + FindingName(kind.id) + L" | " + SeverityName(kind.severity) + L" | " + kind.title +
                L" | " + kind.meaning + L" | " + kind.remedy + L" |";
    }
    return page;
}

} // namespace TxCtl
