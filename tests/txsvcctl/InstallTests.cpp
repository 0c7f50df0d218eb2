#include <windows.h>

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <type_traits>
#include <utility>

#include "CtlTest.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "control/RegistryLink.h"
#include "logging/LogProperties.h"
#include "logging/LogSettings.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"
#include "txsvcctl/RegistryNames.h"
#include "txsvcctl/ServiceManager.h"
#include "txsvcctl/ToolError.h"

namespace
{

const std::wstring kOneClass = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0001}";
const std::wstring kOtherClass = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0002}";
const std::wstring kClasses = L"Software\\Classes\\CLSID\\";
const std::wstring kListKey = std::wstring(kProductKey32) + L"\\Platform\\TxSvcHost\\G";

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
    InstallTest() { EXPECT_TRUE(CreateRegistryLink(kProductKey, kProductKey32, true, true)); }
    ~InstallTest() override
    {
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            m_manager.FindConfig(service) ? m_manager.Delete(service) : void();
        }
        Basalt::CRegKey link; // Deleting the tree would follow it.
        EXPECT_EQ(link.Open(HKEY_LOCAL_MACHINE, kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK), DWORD{0});
        EXPECT_TRUE(DeleteKeyByHandle(link.Get()));
    }

    /// All that an installation touches, with types and bytes.
    std::string Snapshot()
    {
        std::wstring text;
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            text += m_manager.FindConfig(service).value_or(TxCtl::ServiceConfig{}).imagePath + L"\n";
        }
        addKey(kProductKey32, text);
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
            text +=
                Basalt::FormatText(L"%s=%u:", name.c_str(), type) + std::wstring(data.begin(), data.end());
        }
        for (const std::wstring& name : TxCtl::SubKeyNames(key, path))
        {
            addKey(path + L"\\" + name, text);
        }
    }

    const TxCtl::CServiceManager m_manager{SC_MANAGER_CONNECT};
    CTestKey m_product{HKEY_LOCAL_MACHINE, kProductKey32};
    CTestKey m_one{HKEY_LOCAL_MACHINE, kClasses + kOneClass, false};
    CTestKey m_other{HKEY_LOCAL_MACHINE, kClasses + kOtherClass, false};
};

TEST_F(InstallTest, TheLoggerReadsWhatIsSet)
{
    const auto set = [](const wchar_t* settings) {
        std::wstring name;
        std::wstring value;
        for (std::wistringstream words(settings); words >> name >> value;)
        {
            EXPECT_EQ(RunCtl({L"log", L"set", name, value}).exitCode, 0);
        }
        const ETWLogging::LogSettings is = ETWLogging::ReadLogSettings(); // Through the link.
        std::wstring controller;
        EXPECT_TRUE(ETWLogging::LogProperties().GetControllerPath(L"WSS", controller));
        return Narrow(
            Basalt::FormatText(
                L"%u %u 0x%02X %u %u %d ",
                is.mechanism,
                is.threshold,
                is.options,
                is.entriesPerFile,
                is.oldFiles,
                is.useMutex) +
            is.folder + L" " + is.fileName + L" " + is.tag + L" " + controller);
    };
    EXPECT_EQ(
        set(L"mechanism file level 6 fields process,function entries 12 old-files 34 mutex off folder "
            L"C:/logs "
            L"file host.log tag Host controller:WSS C:/c.dll"),
        "1 6 0x24 12 34 0 C:\\logs host.log Host C:\\c.dll");
    EXPECT_EQ(
        set(L"mechanism events fields tag,source mutex on"),
        "2 6 0x18 12 34 1 C:\\logs host.log Host C:\\c.dll");
}

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
    const std::pair<std::function<CtlResult()>, int> table[] = {
        // And how many calls there are at least.
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
            EXPECT_EQ(result.exitCode, result.out.empty() ? 1 : 0);
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

} // namespace
