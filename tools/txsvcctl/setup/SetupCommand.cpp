#include "txsvcctl/setup/SetupCommand.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "base/Paths.h"
#include "process/ComApartment.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/setup/FileExchange.h"
#include "txsvcctl/setup/Registration.h"
#include "txsvcctl/setup/RunningServices.h"
#include "txsvcctl/setup/UpdateNotice.h"

namespace TxCtl
{

namespace
{

// Within the product's folder.
constexpr const wchar_t* kHost = L"\\bin\\TxSvHost.exe";
constexpr const wchar_t* kProxies = L"\\bin\\TxSvHostPS.dll";
constexpr wchar_t kLogIni[] = L"\\bin\\log.ini";

constexpr wchar_t kDefaultFolder[] = L"\\Tarvex\\Shared Service Host";

struct Arguments
{
    std::optional<std::string> from;
    std::optional<std::string> to;
    bool purge = false;
};

std::wstring WithoutEnd(std::wstring path)
{
    while (path.ends_with(L'\\'))
    {
        path.pop_back();
    }
    return path;
}

/// This program's folder is the package's "bin".
std::wstring OwnPackage()
{
    const std::wstring bin = WithoutEnd(Basalt::ProgramFolder());
    return bin.substr(0, bin.rfind(L'\\'));
}

std::wstring DefaultFolder()
{
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(::GetEnvironmentVariableW(L"ProgramFiles", folder.data(), MAX_PATH));
    if (folder.empty() || folder.size() >= MAX_PATH)
    {
        ThrowUsage(L"the environment lacks ProgramFiles: give the folder with --to");
    }
    return folder + kDefaultFolder;
}

std::wstring FolderOf(const std::optional<std::string>& argument, std::wstring (*otherwise)())
{
    return argument ? WithoutEnd(AbsolutePath(FromUtf8(*argument))) : otherwise();
}

bool IsBelow(const std::wstring& path, const std::wstring& folder)
{
    return IsSameName(path.substr(0, folder.size() + 1), folder + L"\\");
}

void ReportEnd(bool isComplete, const std::wstring& what, IConsole& console)
{
    console.Out(what);
    if (!isComplete)
    {
        console.Note(L"old files are in use; the system deletes them when it starts next");
        throw CToolError(ExitCode::RestartNeeded, {});
    }
}

/// As it was before, with what ran.
/// @param hasRegistered so that what was not there before goes again.
void GoBack(
    CFileExchange& exchange,
    CRunningServices& services,
    const std::wstring& proxies,
    bool hasRegistered,
    IConsole& console)
{
    if (exchange.IsBegun())
    {
        services.Stop(console); // Those that the new version may have started.
    }
    if (hasRegistered && !exchange.IsInstalled())
    {
        UnregisterClasses(proxies, console);
    }
    exchange.Rollback();
    if (exchange.IsInstalled())
    {
        RegisterClasses(proxies);
    }
    services.Start(console);
}

/// Leaves COM at its end, which holds the old proxies until then.
/// @param change what is to be undone as a whole when it fails.
template <typename Change>
void AllOrNothing(CFileExchange& exchange, const std::wstring& folder, IConsole& console, Change change)
{
    const CComApartment com; // For group control and for hosts that ask.
    if (FAILED(com.Result()))
    {
        ThrowFailure(L"start", L"COM", static_cast<DWORD>(com.Result()));
    }
    CRunningServices services;
    bool hasRegistered = false;
    try
    {
        change(services, hasRegistered);
    }
    catch (const CToolError& error)
    {
        try
        {
            GoBack(exchange, services, folder + kProxies, hasRegistered, console);
        }
        catch (const CToolError& second)
        {
            ThrowFailed(
                error.Text() + L"\nGoing back to what was there before failed as well: " + second.Text());
        }
        throw CToolError(error.Code(), error.Text() + L"\nAll is as it was before.");
    }
}

void InstallProduct(const Arguments& arguments, IConsole& console)
{
    const std::wstring from = FolderOf(arguments.from, &OwnPackage);
    const std::wstring to = FolderOf(arguments.to, &DefaultFolder);
    if (!Exists(from + kHost) || !Exists(from + kProxies))
    {
        ThrowUsage(
            L"'" + from + L"' is no unpacked package: there is no " +
            (Exists(from + kHost) ? kProxies : kHost));
    }
    if (IsSameName(from, to) || IsBelow(from, to) || IsBelow(to, from))
    {
        ThrowUsage(
            L"'" + to + L"' is where the package itself is: unpack it elsewhere, or give another --to");
    }
    CFileExchange exchange(to);
    exchange.Stage(from);
    AllOrNothing(exchange, to, console, [&](CRunningServices& services, bool& hasRegistered) {
        CUpdateNotice notice(console);
        services.Stop(console);
        exchange.Exchange();
        hasRegistered = true;
        RegisterClasses(to + kProxies);
        notice.End();
        services.Stop(console); // What was not kept from starting may run on the old files.
        services.Start(console);
    });
    ReportEnd(exchange.Commit(), L"Installed in " + to + L".", console);
}

void RemoveProduct(const Arguments& arguments, IConsole& console)
{
    const std::wstring folder = FolderOf(arguments.from, &DefaultFolder);
    if (IsBelow(Basalt::ProgramPath(), folder))
    {
        ThrowUsage(L"a program cannot remove itself: run a copy of txsvcctl.exe from outside of " + folder);
    }
    CFileExchange exchange(folder);
    if (!exchange.IsInstalled())
    {
        if (!arguments.purge)
        {
            ThrowFailed(L"nothing is installed in '" + folder + L"'");
        }
        PurgeSettings(folder + kLogIni, console); // Of hosts that were never installed but run from a ZIP.
        return;
    }
    AllOrNothing(exchange, folder, console, [&](CRunningServices& services, bool& /*hasRegistered*/) {
        CUpdateNotice notice(console);
        services.Stop(console);
        UnregisterClasses(folder + kProxies, console);
        exchange.Exchange();
    });
    // Settings that belong to no group are nobody's.
    if (arguments.purge || CGroupStore().Groups().empty())
    {
        PurgeSettings(folder + kLogIni, console);
    }
    const bool isComplete = exchange.Commit();
    if (IsSameName(folder, DefaultFolder()))
    {
        ::RemoveDirectoryW(folder.substr(0, folder.rfind(L'\\')).c_str()); // Unless something else is in it.
    }
    ReportEnd(isComplete, L"Removed from " + folder + L".", console);
}

} // namespace

void AddSetupCommands(CLI::App& app, IConsole& console)
{
    CLI::App* const command =
        app.add_subcommand("setup", "Install, update or remove the product; installers run this");
    command->require_subcommand(1);
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const install =
        command->add_subcommand("install", "Install an unpacked package, or update to it");
    install->add_option("--from", arguments->from, "The unpacked package [the one of this program]");
    install->add_option("--to", arguments->to, "Its place [Tarvex\\Shared Service Host in Program Files]");
    install->callback([arguments, &console] { InstallProduct(*arguments, console); });
    CLI::App* const remove = command->add_subcommand("remove", "Remove what was installed");
    remove->add_option("--from", arguments->from, "Its place [Tarvex\\Shared Service Host in Program Files]");
    remove->add_flag("--purge", arguments->purge, "Remove groups, settings and logs too");
    remove->callback([arguments, &console] { RemoveProduct(*arguments, console); });
}

} // namespace TxCtl
