/// @file
/// Shows a whole service group in one process, as it runs on Windows (see CGroupRunner):
///
///     group_runner HOST_EXE GROUP [SERVICE...] [-- COMMAND ARGUMENT...]
///
/// Starts the host, starts the services (all of the group when none is named), says where they run, runs the
/// command, stops the services one after another and says how the host ended. The exit code is 0 only when
/// all of that went well, the command's and the host's exit codes included. The services must be installed.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "support/Errors.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"
#include "support/Narrow.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr DWORD kCommandTimeoutMs = 300000;
constexpr wchar_t kCommandMark[] = L" -- ";

struct Options
{
    std::wstring host;
    std::wstring group;
    std::vector<std::wstring> services;
    std::wstring command; ///< Empty for none.
};

template <typename... Arguments>
void Print(const wchar_t* format, const Arguments&... arguments)
{
    std::fputs(Narrow(Basalt::FormatText(format, arguments...)).c_str(), stdout);
    std::fflush(stdout); // The command writes to the same place.
}

bool ParseOptions(int argc, wchar_t** argv, Options& options)
{
    if (argc < 3)
    {
        return false;
    }
    std::wstring path(32768, L'\0');
    path.resize(::GetFullPathNameW(argv[1], static_cast<DWORD>(path.size()), path.data(), nullptr));
    options.host = path;
    options.group = argv[2];
    for (int i = 3; i < argc && std::wcscmp(argv[i], L"--") != 0; ++i)
    {
        options.services.emplace_back(argv[i]);
    }
    // As it was typed: taking it apart and quoting it anew could change it.
    const std::wstring line = ::GetCommandLineW();
    const std::size_t mark = line.find(kCommandMark);
    options.command = mark == std::wstring::npos ? L"" : line.substr(mark + std::size(kCommandMark) - 1);
    return true;
}

std::vector<std::wstring> ServicesOfGroup(const std::wstring& group)
{
    const std::wstring path = std::wstring(kHostKey) + L"\\" + group;
    Basalt::CRegKey key;
    std::wstring list;
    ThrowIfFailed(key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ), L"opening " + path);
    ThrowIfFailed(key.ReadString(L"", list), L"reading the service list of " + path);
    std::vector<std::wstring> services;
    constexpr wchar_t kSeparators[] = L";:,";
    for (std::size_t at = list.find_first_not_of(kSeparators); at != std::wstring::npos;)
    {
        const std::size_t end = std::min(list.find_first_of(kSeparators, at), list.size());
        services.push_back(list.substr(at, end - at));
        at = list.find_first_not_of(kSeparators, end);
    }
    if (services.empty())
    {
        ThrowError(L"the group " + group + L" has no services");
    }
    return services;
}

void StartServices(CGroupRunner& host, const Options& options)
{
    Print(L"  %-24s %-14s %s\n", L"SERVICE", L"STATE", L"PROCESS");
    for (const std::wstring& name : options.services)
    {
        host.StartAndWait(name);
        const std::wstring state = TxCtl::StateName({QueryService(name).dwCurrentState});
        Print(L"  %-24s %-14s %7lu\n", name.c_str(), state.c_str(), host.ProcessId());
    }
}

/// @return whether the command ended with 0.
bool RunCommand(const std::wstring& command)
{
    Print(L"\n> %s\n", command.c_str());
    std::wstring writable = command; // CreateProcessW writes into it.
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(
            nullptr, writable.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
    {
        ThrowError(L"cannot start the command " + command, ::GetLastError());
    }
    const Basalt::CHandle thread(process.hThread);
    const Basalt::CHandle child(process.hProcess);
    if (::WaitForSingleObject(child.Get(), kCommandTimeoutMs) != WAIT_OBJECT_0)
    {
        ::TerminateProcess(child.Get(), ERROR_TIMEOUT);
        ThrowError(L"the command did not end: " + command);
    }
    DWORD exitCode = 0;
    ::GetExitCodeProcess(child.Get(), &exitCode);
    if (exitCode != 0)
    {
        Print(L"The command FAILED with %lu\n", exitCode);
    }
    return exitCode == 0;
}

/// @return whether the host ended with 0.
bool StopServices(CGroupRunner& host, const Options& options)
{
    Print(L"\n  %-24s %s\n", L"SERVICE", L"STATE");
    for (const std::wstring& name : options.services)
    {
        host.Stop(name);
        const std::wstring state = TxCtl::StateName({QueryService(name).dwCurrentState});
        Print(L"  %-24s %s\n", name.c_str(), state.c_str());
    }
    const std::optional<DWORD> exitCode = host.WaitForExit();
    if (!exitCode)
    {
        ThrowError(L"the host does not end although its services have stopped");
    }
    Print(L"\nThe host ended with exit code %lu.\n", *exitCode);
    return *exitCode == 0;
}

bool Run(Options options)
{
    if (options.services.empty())
    {
        options.services = ServicesOfGroup(options.group);
    }
    CGroupRunner host(L"\"" + options.host + L"\" /" + options.group);
    Print(L"Group %s in one process of %s\n\n", options.group.c_str(), options.host.c_str());
    StartServices(host, options);
    const bool isCommandGood = options.command.empty() || RunCommand(options.command);
    return StopServices(host, options) && isCommandGood;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
    {
        std::fputs("usage: group_runner HOST_EXE GROUP [SERVICE...] [-- COMMAND ARGUMENT...]\n", stderr);
        return kExitUsage;
    }
    try
    {
        return Run(options) ? 0 : kExitFailure;
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "group_runner: %s\n", failure.what());
        return kExitFailure;
    }
}
