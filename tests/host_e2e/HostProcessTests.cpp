#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "subsystems/TestSubsystemIds.h"
#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/Process.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"

namespace
{

TEST(HostProcess, OutsideTheManagerItsExitCodeSaysWhatIsWrong)
{
    const CTestFolder folder;
    const CHostLog log(folder.Path());
    const CTestGroup group(L"TxE2eOutside", {{L"TxE2eOutside1", L"{}", L""}});
    const CTestGroup empty(L"TxE2eEmpty", {});
    const std::wstring longName(30000, L'g');
    const struct
    {
        std::wstring arguments;
        DWORD expected;
        std::wstring line;
    } rows[] = {
        {L"", 87, L"Failed to parse the command line"},
        {L"group", 87, L"The group delimiter is not found. Group Entry 'group'"},
        {L"/", 87, L"The group name is empty. Group Entry '/'"},
        {L"\"\" /TxE2eOutside", 87, L"The group delimiter is not found. Group Entry ''"},
        {L"/NoSuchGroup", 87, L"Failed to get group services NoSuchGroup"},
        {L"/TxE2eEmpty", 87, L"There are no services in the group TxE2eEmpty"},
        {L"/STARTSERVICES", 87, L"Failed to get group services STARTSERVICES"},
        {L"/\x4E2D\xD800\\..\\x", 87, L"Failed to add services to SCM interface"},
        {L"/" + longName, 87, L"Failed to add services to SCM interface"},
        {L"x/TxE2eOutside", 1359, L"SCM interface failed to start (Err=0x00000427)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.arguments.substr(0, 40)));
        SkipControlPipe();

        EXPECT_EQ(RunProcess(L"\"" + BesideTest(L"TxSvHost.exe") + L"\" " + row.arguments), row.expected);
        EXPECT_NE(log.CountContaining(L"Error", row.line), 0U);
    }
    EXPECT_EQ(RunProcess(L"\"" + BesideTest(L"TxSvHost.exe") + L"\" /startservices"), 0U);
}

TEST(HostProcess, AStartLinksTheRegistryViewsAndASecondChangesNothing)
{
    const CTestGroup group(L"TxE2eLink", {{L"TxE2eLink1", L"{}", L""}});
    Basalt::CRegKey link;
    if (link.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) ==
        ERROR_SUCCESS)
    {
        ASSERT_TRUE(DeleteKeyByHandle(link.Get()));
    }
    Basalt::CRegKey plain;
    ASSERT_EQ(
        plain.Create(HKEY_LOCAL_MACHINE, L"Software\\Tarvex\\Platform\\TxSvcHost\\Old", KEY_ALL_ACCESS),
        DWORD{0});
    plain.Close();

    for (int start = 1; start <= 2; ++start)
    {
        SCOPED_TRACE(start);
        SkipControlPipe();
        // Only a process that read the group's list through the link gets as far as the dispatcher.
        EXPECT_EQ(RunProcess(group.CommandLine()), 1359U);
        EXPECT_TRUE(IsRegistryLink(Contract::kProductKey));
    }
}

/// Paths of the modules of a process, lower-cased.
std::vector<std::wstring> ModulesOf(HANDLE process)
{
    std::vector<HMODULE> modules(1024);
    DWORD bytes = 0;
    EXPECT_TRUE(::EnumProcessModules(
        process, modules.data(), static_cast<DWORD>(modules.size() * sizeof(HMODULE)), &bytes));
    modules.resize(bytes / sizeof(HMODULE));
    std::vector<std::wstring> paths;
    for (HMODULE module : modules)
    {
        wchar_t path[MAX_PATH] = {};
        ::GetModuleFileNameExW(process, module, path, MAX_PATH);
        ::_wcslwr(path);
        paths.emplace_back(path);
    }
    return paths;
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
    const CTestGroup group(
        L"TxE2ePlanted",
        {{L"TxE2ePlanted1", TestClsidText(TestBehaviour::WellBehaved), BesideTest(kTestModule)}},
        host);

    CGroupRunner runner(group.CommandLine());
    runner.StartAndWait(L"TxE2ePlanted1");
    const std::vector<std::wstring> modules = ModulesOf(runner.Process());
    runner.Stop(L"TxE2ePlanted1");

    EXPECT_EQ(runner.WaitForExit(), 0U);
    std::wstring prefix = folder.Path();
    ::_wcslwr(prefix.data());
    std::vector<std::wstring> fromFolder;
    std::copy_if(
        modules.begin(), modules.end(), std::back_inserter(fromFolder), [&](const std::wstring& path) {
            return path.starts_with(prefix);
        });
    EXPECT_EQ(fromFolder, std::vector<std::wstring>{prefix + L"\\txsvhost.exe"});
}

} // namespace
