#include <windows.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "CtlTest.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "support/FakeScm.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/ModuleFile.h"
#include "txsvcctl/service/RegistryNames.h"
#include "txsvcctl/service/ServiceManager.h"

using enum TxCtl::ModuleFault;
using TxCtl::CheckModuleFile;

namespace
{

const std::wstring kOneClass = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0001}";
const std::wstring kOtherClass = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0002}";
const std::wstring kClasses = L"Software\\Classes\\CLSID\\";
const std::wstring kListKey = std::wstring(Contract::kProductKey32) + L"\\Platform\\TxSvcHost\\G";

CtlResult Install(const wchar_t* group, const wchar_t* service, const std::wstring& clsid)
{
    std::vector<std::wstring> arguments = {L"install", group, service, L"--clsid", clsid, L"--module"};
    arguments.insert(
        arguments.end(), {L"C:\\windows\\system32\\oleaut32.dll", L"--host", BesideTest(L"txsvcctl.exe")});
    return RunCtl(arguments);
}

class InstallTest : public ::testing::Test
{
protected:
    InstallTest()
    {
        EXPECT_TRUE(CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true));
    }
    ~InstallTest() override
    {
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            m_manager.FindConfig(service) ? m_manager.Delete(service) : void();
        }
        Basalt::CRegKey link; // Deleting the tree would follow it.
        EXPECT_EQ(
            link.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK),
            DWORD{0});
        EXPECT_TRUE(DeleteKeyByHandle(link.Get()));
    }

    /// All that an installation touches, with types and bytes.
    std::string Snapshot()
    {
        std::wstring text;
        for (const std::wstring path :
             {Contract::kProductKey32,
              L"System\\CurrentControlSet\\Services\\txctl-a",
              L"System\\CurrentControlSet\\Services\\txctl-b",
              Contract::kEventSourceKey})
        {
            addKey(path, text);
        }
        addKey(m_one.Path(), text);
        addKey(m_other.Path(), text);
        return Narrow(text);
    }

private:
    static void addKey(const std::wstring& path, std::wstring& text)
    {
        Basalt::CRegKey key;
        if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS)
        {
            return;
        }
        text += L"[" + path + L"]\n";
        for (const std::wstring& name : TxCtl::ValueNames(key, path))
        {
            DWORD type = REG_NONE;
            std::vector<BYTE> data;
            EXPECT_EQ(key.ReadValue(name.c_str(), type, data), DWORD{0});
            text += name + L"=" + std::to_wstring(type) + std::wstring(data.begin(), data.end());
        }
        for (const std::wstring& name : TxCtl::SubKeyNames(key, path))
        {
            addKey(path + L"\\" + name, text);
        }
    }

    const TxCtl::CServiceManager m_manager{SC_MANAGER_CONNECT};
    CTestKey m_product{HKEY_LOCAL_MACHINE, Contract::kProductKey32};
    CTestKey m_one{HKEY_LOCAL_MACHINE, kClasses + kOneClass, false};
    CTestKey m_other{HKEY_LOCAL_MACHINE, kClasses + kOtherClass, false};
    CTestKey m_source{HKEY_LOCAL_MACHINE, Contract::kEventSourceKey, false};
};

int s_untilFailure; ///< Calls that go well before some fail, and how many fail then.
int s_failures;

/// Lets a function of the system that changes something fail when its turn has come.
/// @tparam number makes functions of one type different ones.
template <int number, typename Result, typename... Arguments>
CImportPatch FailInTurn(const char* name, Result(WINAPI* /*type*/)(Arguments...))
{
    static auto* const s_real = RealFunction<Result WINAPI(Arguments...)>(name, L"advapi32.dll");
    return CImportPatch(
        name, +[](Arguments... arguments) {
            if (s_untilFailure-- > 0 || s_failures-- <= 0)
            {
                return s_real(arguments...);
            }
            ::SetLastError(ERROR_ACCESS_DENIED);
            return Result(ULONG_PTR{std::is_same_v<Result, LSTATUS> ? ERROR_ACCESS_DENIED : 0});
        });
}

struct FailingSystem
{
    const CImportPatch patches[7] = {
        FailInTurn<0>("RegCreateKeyExW", &::RegCreateKeyExW),
        FailInTurn<1>("RegSetValueExW", &::RegSetValueExW),
        FailInTurn<2>("RegDeleteValueW", &::RegDeleteValueW),
        FailInTurn<3>("RegDeleteKeyW", &::RegDeleteKeyW),
        FailInTurn<4>("CreateServiceW", &::CreateServiceW),
        FailInTurn<5>("ChangeServiceConfigW", &::ChangeServiceConfigW),
        FailInTurn<6>("DeleteService", &::DeleteService)};
};

TEST_F(InstallTest, AFailureInTheMiddleLeavesEverythingAsItWas)
{
    Basalt::CRegKey list;
    ASSERT_EQ(list.Create(HKEY_LOCAL_MACHINE, kListKey.c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(list.WriteValue(L"", REG_EXPAND_SZ, L"x", 4), DWORD{0}); // Another type than the tool's.
    ASSERT_EQ(list.WriteDword(L"WSSOptimalBucketUpperLimit", 7), DWORD{0});
    const FailingSystem system;
    // And how many calls there are at least.
    const std::pair<std::function<CtlResult()>, int> table[] = {
        {[] { return Install(L"G", L"txctl-a", kOneClass); }, 7},
        {[] { return Install(L"H", L"txctl-b", kOneClass); }, 6},
        {[] { return Install(L"H", L"txctl-b", kOtherClass); }, 6},
        {[] { return RunCtl({L"remove", L"H", L"txctl-b"}); }, 7},
        {[] { return RunCtl({L"remove", L"G", L"x"}); }, 1},
        {[] { return RunCtl({L"remove", L"G", L"txctl-a"}); }, 9},
    };
    for (const auto& [run, least] : table)
    {
        const std::string before = Snapshot();
        for (int calls = 0;; ++calls)
        {
            SCOPED_TRACE(calls);
            s_untilFailure = calls;
            s_failures = 1;

            const CtlResult result = run();

            if (s_failures == 1)
            {
                EXPECT_EQ(result.exitCode, 0) << result;
                EXPECT_GE(calls, least);
                EXPECT_NE(Snapshot(), before);
                break;
            }
            ASSERT_EQ(Snapshot(), before);
            EXPECT_NE(result.error.find(L"': error 5: "), std::wstring::npos) << result;
            EXPECT_TRUE(result.error.ends_with(L"\nAll changes were undone.\n")) << result;
            EXPECT_EQ(result.exitCode, 3);
        }
    }
}

TEST_F(InstallTest, WhatCannotBeUndoneIsNamed)
{
    const FailingSystem system;
    s_untilFailure = 1;
    s_failures = 2;
    const std::wstring path = kClasses + kOneClass;
    const std::wstring end = L"': " + TxCtl::DescribeError(ERROR_ACCESS_DENIED) + L"\n";
    const std::wstring failed = L"txsvcctl: cannot create registry key '" + path + L"\\InprocServer32" + end;
    const std::wstring stays = L"The changes were undone, but for:\n  cannot put back '" + path + end;

    EXPECT_EQ(Narrow(Install(L"G", L"txctl-a", kOneClass).error), Narrow(failed + stays));
}

TEST_F(InstallTest, CheckFindsARestrictedSidAmongOthersAndADiskThatIsNearlyFull)
{
    const CTestFolder folder;
    Install(L"G", L"txctl-a", kOneClass);
    Install(L"G", L"txctl-b", kOtherClass);
    RunCtl({L"log", L"set", L"folder", folder.Path()});
    RunCtl({L"log", L"set", L"mechanism", L"file"});
    const CImportPatch patches[] = {
        {"QueryServiceConfig2W",
         +[](SC_HANDLE, DWORD level, BYTE* data, DWORD, DWORD*) {
             static DWORD s_type = SERVICE_SID_TYPE_RESTRICTED; // Of every other service that is asked for.
             reinterpret_cast<SERVICE_SID_INFO*>(data)->dwServiceSidType = s_type;
             s_type = SERVICE_SID_TYPE_RESTRICTED - s_type;
             return BOOL{level == SERVICE_CONFIG_SERVICE_SID_INFO};
         }},
        {"GetDiskFreeSpaceExW", +[](const wchar_t*, ULARGE_INTEGER* available, ULARGE_INTEGER*) {
             available->QuadPart = 5ULL * 1024 * 1024;
             return TRUE;
         }}};

    const std::string out = Narrow(RunCtl({L"check", L"G"}).out);

    EXPECT_NE(out.find("\n  G/txctl-b: not restricted, as the group's first one is\n"), out.npos) << out;
    EXPECT_NE(out.find("TX0704 warning: The log's disk is nearly full\n"), out.npos) << out;
    EXPECT_NE(out.find(": 5.0 MiB are free\n"), out.npos) << out;
}

DWORD s_waitResult;
bool s_isOtherDone;

/// Lets another run come first, as long as this one has to wait for it.
DWORD WINAPI WaitForTheOther(HANDLE, DWORD milliseconds)
{
    EXPECT_EQ(milliseconds, 30000U);
    const Basalt::CHandle mutex(::OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\TarvexTxSvcCtl"));
    EXPECT_TRUE(mutex);
    if (!std::exchange(s_isOtherDone, true))
    {
        EXPECT_EQ(Install(L"G", L"txctl-b", kOneClass).exitCode, 0);
    }
    return s_waitResult;
}

TEST_F(InstallTest, RunsAtOnceWaitForEachOtherAndLoseNoService)
{
    const CImportPatch patch("WaitForSingleObject", &WaitForTheOther);
    EXPECT_EQ(Install(L"G", L"txctl-a", kOneClass).exitCode, 0);
    Basalt::CRegKey key;
    std::wstring list;
    EXPECT_EQ(key.Open(HKEY_LOCAL_MACHINE, kListKey.c_str(), KEY_READ), DWORD{0});
    EXPECT_EQ(key.ReadString(L"", list), DWORD{0});
    EXPECT_EQ(Narrow(list), "txctl-b;txctl-a");

    const std::string none = "txsvcctl: there is no service 'x' of group 'G'\n";
    const std::string busy = "txsvcctl: another txsvcctl is changing services; try again when it has ended\n";
    s_waitResult = WAIT_ABANDONED; // By one that was ended.
    EXPECT_EQ(Narrow(RunCtl({L"remove", L"G", L"x"}).error), none);
    s_waitResult = WAIT_TIMEOUT;
    EXPECT_EQ(Narrow(RunCtl({L"remove", L"G", L"x"}).error), busy);
    const CImportPatch noMutex(
        "CreateMutexW", +[](SECURITY_ATTRIBUTES*, BOOL, const wchar_t*) {
            ::SetLastError(ERROR_ACCESS_DENIED);
            return HANDLE{};
        });
    EXPECT_EQ(RunCtl({L"remove", L"G", L"x"}).error.find(L"txsvcctl: cannot create mutex 'Global\\"), 0U);
}

// What a service is each time that it is looked at: 1 stopped, 2 starting, 3 stopping, 4 running,
// 5 continuing, 6 pausing, 7 paused, 8 nothing known; E stopped with Win32 error 2, O with its own code 99.
SERVICE_STATUS_PROCESS StateOf(char look)
{
    return look == 'E'   ? CFakeScm::State(SERVICE_STOPPED, 0, ERROR_FILE_NOT_FOUND)
           : look == 'O' ? CFakeScm::State(SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 99)
                         : CFakeScm::State(static_cast<DWORD>(look - '0'), look == '1' ? 0 : 7);
}

TEST(ServiceControl, WaitsForTheEndAndTellsHowItWent)
{
    const struct
    {
        const wchar_t* command;
        const char* looks;
        DWORD error; ///< of the first StartServiceW or ControlService
        std::size_t calls;
        const wchar_t* part; ///< of the message; of a success all that is printed
        bool isTimeout = false;
    } table[] = {
        {L"start", "1224", 0, 1, L"a: running, process 7\n"},
        {L"start", "4", 0, 0, L"a: running, process 7\n"},
        {L"start", "24", 0, 0, L"a: running, process 7\n"},
        {L"start", "124", ERROR_SERVICE_ALREADY_RUNNING, 1, L"a: running, process 7\n"},
        {L"start", "314", 0, 1, L"a: running, process 7\n"},
        {L"start", "12E", 0, 1, L"cannot start service 'a': it ended at once with exit code 2 (error 2: "},
        {L"start", "1O", 0, 1, L": it ended at once with exit code 99 of its own\n"},
        {L"start", "1E", ERROR_SERVICE_REQUEST_TIMEOUT, 1, L" It is stopped with exit code 2 (error 2: "},
        {L"start", "1O", ERROR_SERVICE_DISABLED, 1, L"txsvcctl: cannot start service 'a': error 1058: "},
        {L"start", "12", 0, 1, L"txsvcctl: cannot start service 'a': error 1460: ", true},
        {L"start", "5", 0, 0, L" Its state is: continuing, process 7\n", true},
        {L"start", "67", 0, 0, L"'a': its state is paused, process 7\n"},
        {L"start", "8", 0, 0, L"'a': its state is unknown, process 7\n"},
        {L"stop", "4431", 0, 1, L"a: stopped\n"},
        {L"stop", "71", 0, 1, L"a: stopped\n"},
        {L"stop", "31", 0, 0, L"a: stopped\n"},
        {L"stop", "41", ERROR_SERVICE_NOT_ACTIVE, 1, L"a: stopped\n"},
        {L"stop", "2441", ERROR_SERVICE_CANNOT_ACCEPT_CTRL, 2, L"a: stopped\n"},
        {L"stop", "4", ERROR_INVALID_SERVICE_CONTROL, 1, L"txsvcctl: cannot stop service 'a': error 1052: "},
        {L"stop", "43", 0, 1, L" Its state is: stopping, process 7\n", true},
        {L"stop", "46", 0, 1, L" Its state is: pausing, process 7\n", true},
    };
    for (const auto& row : table)
    {
        const bool isDone = row.part[0] == L'a';
        for (const int seconds : {2, 30, 3600}) // 30 unless told otherwise.
        {
            SCOPED_TRACE(row.looks + (" in " + std::to_string(seconds)));
            CFakeScm scm;
            CFakeScm::Service& service = scm.services[L"a"];
            service.errors = {row.error};
            service.states.clear();
            for (const char look : std::string_view(row.looks))
            {
                service.states.push_back(StateOf(look));
            }
            std::vector<std::wstring> arguments = {row.command, L"a", L"--timeout", std::to_wstring(seconds)};
            arguments.resize(seconds == 30 ? 2 : 4);

            const CtlResult result = RunCtl(arguments);

            EXPECT_EQ(result.exitCode, isDone ? 0 : 3);
            EXPECT_EQ(result.out, isDone ? row.part : L"") << result;
            EXPECT_NE(result.error.find(isDone ? L"" : row.part), std::wstring::npos) << result;
            EXPECT_EQ(scm.calls.size(), row.calls);
            EXPECT_EQ(static_cast<int>(scm.now / 1000), row.isTimeout ? seconds : 0);
            EXPECT_EQ(scm.opened, 0);
        }
    }
}

constexpr wchar_t kModule[] = L"C:\\windows\\system32\\oleaut32.dll";

TEST(ModuleFile, EveryUnsuitableFileHasItsFault)
{
    std::ifstream file(kModule, std::ios::binary);
    const std::string original(std::istreambuf_iterator<char>(file), {});
    IMAGE_DOS_HEADER dos{};
    ASSERT_GT(original.copy(reinterpret_cast<char*>(&dos), sizeof(dos)), 0U);
    const auto headers = static_cast<std::size_t>(dos.e_lfanew);
    const std::size_t fileHeader = headers + offsetof(IMAGE_NT_HEADERS64, FileHeader);
    const std::size_t optional = headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader);
    const std::size_t directories = optional + offsetof(IMAGE_OPTIONAL_HEADER64, NumberOfRvaAndSizes);
    const std::size_t name = original.find("DllGetClassObject");
    const struct
    {
        const char* name;
        TxCtl::ModuleFault fault;
        std::size_t at; ///< Here these bytes are put, or the file ends.
        std::string bytes;
    } table[] = {
        {"as it is", None, 0, "MZ"},
        {"empty", NotAnImage, 0, ""},
        {"DOS header only", NotAnImage, sizeof(dos), ""},
        {"negative offset", NotAnImage, offsetof(IMAGE_DOS_HEADER, e_lfanew), "\xF8\xFF\xFF\xFF"},
        {"PE signature", NotAnImage, headers, "NE"},
        {"no headers", NotAnImage, optional, ""},
        {"headers of 32 bits", NotAnImage, optional, "\x0B\x01"},
        {"cut section table", NotAnImage, headers + sizeof(IMAGE_NT_HEADERS64) + 10, ""},
        {"x86", Not64Bit, fileHeader, "\x4C\x01"},
        {"program", NotADll, optional - 1, "\x01"}, // The last word before are the characteristics.
        {"no exports", NoClassObject, directories + 4, std::string(4, '\0')},
        {"exports outside", NoClassObject, directories + 4, "\xF0\xFF\xFF\xFF"},
        {"exports cut off", NoClassObject, name, ""},
        {"another name", NoClassObject, name, "d"},
        {"a longer name", NoClassObject, name, "DllGetClassObjectX"},
    };
    const CTestFolder folder;
    const std::wstring path = folder.File(L"m.dll");
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        std::string bytes = original;
        bytes.replace(row.at, row.bytes.empty() ? std::string::npos : row.bytes.size(), row.bytes);
        std::ofstream(path.c_str(), std::ios::binary) << bytes;

        EXPECT_EQ(CheckModuleFile(path).fault, row.fault);
    }
    std::filesystem::resize_file(path, 512ULL * 1024 * 1024 + 1);
    EXPECT_EQ(CheckModuleFile(path).error, DWORD{ERROR_FILE_TOO_LARGE});
}

} // namespace
