#include "txsvcctl/project/NewCommand.h"

#include <windows.h>
#include <objbase.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <string>

#include "base/Owned.h"
#include "base/Text.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"

namespace TxCtl
{

namespace
{

/// A file name, a C++ class and a CMake target are made of it.
constexpr std::size_t kLongestName = 64;

// In the texts NAME stands for the project's name, {CLSID} for its class's, GUID-INITIALISER for that in C++.

constexpr wchar_t kClassText[] = LR"(#include "TxSubsystemModule.h"

/// Say here what the service does.
class CNAME : public TxSdk::CSubsystem
{
    /// Gets ready; what takes longer than ten seconds calls ReportProgress meanwhile.
    /// @param argv the service's name, then the arguments of the start.
    /// @return 0, or the Win32 error with which the service then stops.
    DWORD OnStart(DWORD /*argc*/, LPWSTR* /*argv*/) override { return ERROR_SUCCESS; }

    /// The work. Returns soon after the event was signalled, cleaned up.
    void Run(HANDLE stopEvent) override
    {
        constexpr DWORD kIntervalMs = 1000;
        while (::WaitForSingleObject(stopEvent, kIntervalMs) == WAIT_TIMEOUT)
        {
            // What is done once in each interval.
        }
    }
};

// {CLSID}
TX_SUBSYSTEM_MODULE(CNAME, GUID-INITIALISER)
)";

constexpr wchar_t kBuildText[] = LR"(cmake_minimum_required(VERSION 3.25)
project(NAME VERSION 1.0 LANGUAGES CXX)

find_package(TxSvHost REQUIRED)

txsvhost_add_service(NAME
  DESCRIPTION "NAME service"
  SOURCES NAME.cpp)
)";

constexpr wchar_t kReadmeText[] = LR"(# NAME

A service for the Tarvex Shared Service Host. Its class is `{CLSID}`.

HOST stands for the folder where the host is installed, with `bin` and `kit` in it.

Build (a cross compiler needs `--toolchain HOST/kit/toolchains/mingw-gcc.cmake` as well):

    cmake -S . -B build -DCMAKE_PREFIX_PATH=HOST/kit
    cmake --build build

Try it in a console, until Ctrl+C:

    txsvcrun --module build/NAME.dll --clsid "{CLSID}"

Install it as a service of a group, and start it (as administrator, with the DLL where only administrators can write):

    txsvcctl install MyGroup NAME --clsid "{CLSID}" --module build/NAME.dll
    txsvcctl start NAME

What a service may do and has to do: `HOST/docs/hosting-a-service.md`.
)";

void CheckProjectName(const std::wstring& name)
{
    const auto isLetter = [](wchar_t character) {
        return (character >= L'A' && character <= L'Z') || (character >= L'a' && character <= L'z');
    };
    const auto isOther = [](wchar_t character) {
        return (character >= L'0' && character <= L'9') || character == L'_';
    };
    if (name.empty() || name.size() > kLongestName || !isLetter(name.front()) ||
        !std::ranges::all_of(name, [&](wchar_t at) { return isLetter(at) || isOther(at); }))
    {
        ThrowUsage(
            L"a project's name begins with a letter and has up to 64 letters (A to Z), digits and '_'; '" +
            name + L"' does not");
    }
}

/// Those that CMake has targets of its own for.
void CheckTargetName(const std::wstring& name)
{
    for (const wchar_t* const taken :
         {L"all",
          L"all_build",
          L"clean",
          L"edit_cache",
          L"help",
          L"install",
          L"package",
          L"package_source",
          L"preinstall",
          L"rebuild_cache",
          L"run_tests",
          L"test",
          L"zero_check"})
    {
        if (IsSameName(name, taken))
        {
            ThrowUsage(L"CMake keeps the name '" + name + L"' for itself");
        }
    }
}

std::wstring Replaced(std::wstring text, const std::wstring& from, const std::wstring& to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != std::wstring::npos; at += to.size())
    {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::wstring Filled(const wchar_t* text, const std::wstring& name, const GUID& clsid)
{
    wchar_t canonical[39] = {}; // With the terminator.
    ::StringFromGUID2(clsid, canonical, 39);
    std::wstring initialiser = Basalt::FormatText(
        L"{0x%08X, 0x%04X, 0x%04X, {", clsid.Data1, DWORD{clsid.Data2}, DWORD{clsid.Data3});
    for (const BYTE byte : clsid.Data4)
    {
        Basalt::AppendFormat(initialiser, initialiser.ends_with(L'{') ? L"0x%02X" : L", 0x%02X", DWORD{byte});
    }
    return Replaced(
        Replaced(Replaced(text, L"GUID-INITIALISER", initialiser + L"}}"), L"{CLSID}", canonical),
        L"NAME",
        name);
}

/// @throws CToolError, also for a file that is there.
void WriteNewFile(const std::wstring& path, const std::wstring& text)
{
    const std::string bytes = ToUtf8(text);
    const Basalt::CFile file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !::WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
    {
        ThrowFailure(L"write file", path, ::GetLastError());
    }
}

void WriteProject(const std::wstring& name, IConsole& console)
{
    CheckProjectName(name);
    CheckTargetName(name);
    const std::wstring folder = AbsolutePath(name);
    if (!::CreateDirectoryW(folder.c_str(), nullptr)) // One that is there stays as it is.
    {
        ThrowFailure(L"make folder", folder, ::GetLastError());
    }
    GUID clsid{};
    if (FAILED(::CoCreateGuid(&clsid)))
    {
        ThrowFailed(L"the system gives no new GUID");
    }
    WriteNewFile(folder + L"\\" + name + L".cpp", Filled(kClassText, name, clsid));
    WriteNewFile(folder + L"\\CMakeLists.txt", Filled(kBuildText, name, clsid));
    WriteNewFile(folder + L"\\README.md", Filled(kReadmeText, name, clsid));
    console.Out(
        folder + L": " + name + L".cpp, CMakeLists.txt and README.md, which tells how to build and run it");
}

} // namespace

void AddNewCommand(CLI::App& app, IConsole& console)
{
    const auto name = std::make_shared<std::string>();
    CLI::App* const command =
        app.add_subcommand("new", "Write the project of a service, to be built with the kit");
    command->add_option("name", *name, "Its name; also that of the folder, which must not be there yet")
        ->required();
    command->callback([name, &console] { WriteProject(FromUtf8(*name), console); });
}

} // namespace TxCtl
