#include <windows.h>
#include <psapi.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "subsystems/TestSubsystemIds.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"

namespace
{

/// File names of the modules that a process has from this folder.
std::vector<std::wstring> ModulesFrom(const std::wstring& folder, HANDLE process)
{
    HMODULE modules[1024];
    DWORD bytes = 0;
    EXPECT_TRUE(::EnumProcessModules(process, modules, sizeof(modules), &bytes));
    std::vector<std::wstring> names;
    for (std::size_t i = 0; i < bytes / sizeof(HMODULE); ++i)
    {
        wchar_t path[MAX_PATH] = {};
        ::GetModuleFileNameExW(process, modules[i], path, MAX_PATH);
        if (::_wcsnicmp(path, folder.c_str(), folder.size()) == 0)
        {
            names.push_back(std::filesystem::path(path).filename().wstring());
        }
    }
    return names;
}

TEST(HostProcess, LoadsNoLibraryThatWasPlantedBesideIt)
{
    const CTestFolder folder;
    const std::wstring host = folder.File(L"TxSvHost.exe");
    std::filesystem::copy_file(BesideTest(L"TxSvHost.exe"), host);
    // Not version.dll: Wine's own user32 imports it by name, and Wine knows no protected list of system DLLs.
    for (const wchar_t* name : {L"wintrust.dll", L"crypt32.dll", L"cryptbase.dll", L"shell32.dll"})
    {
        std::filesystem::copy_file(BesideTest(kNoExportModule), folder.File(name));
    }
    CInstallation installation;
    CGroupRunner runner(installation.AddGroup(
        L"TxPlanted", {{L"TxPlanted1", TestClsidText(L"WellBehaved"), BesideTest(kTestModule)}}, host));
    runner.StartAndWait(L"TxPlanted1");

    EXPECT_EQ(ModulesFrom(folder.Path(), runner.Process()), std::vector<std::wstring>{L"TxSvHost.exe"});

    runner.Stop(L"TxPlanted1");
    EXPECT_EQ(runner.WaitForExit(), 0U);
}

} // namespace
