#include <windows.h>

#include <functional>
#include <gtest/gtest.h>
#include <string_view>
#include <thread>
#include <type_traits>

#include "CtlTest.h"
#include "base/Owned.h"
#include "base/RegKey.h"
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

constexpr wchar_t kOneClass[] = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0001}";
constexpr wchar_t kOtherClass[] = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0002}";
constexpr wchar_t kListKey[] = L"Software\\Wow6432Node\\Tarvex\\Platform\\TxSvcHost\\G";

CtlResult Install(const wchar_t* group, const wchar_t* service, const wchar_t* clsid)
{
    return RunCtl(
        {L"install",
         group,
         service,
         L"--clsid",
         clsid,
         L"--module",
         L"C:\\windows\\system32\\oleaut32.dll",
         L"--host",
         BesideTest(L"txsvcctl.exe")});
}

class InstallTest : public ::testing::Test
{
protected:
    InstallTest()
    {
        forgetEntries();
        EXPECT_TRUE(CreateRegistryLink(kProductKey, kProductKey32, true, true));
    }
    ~InstallTest() override
    {
        forgetEntries();
        Basalt::CRegKey link; // Deleting the tree would follow it.
        EXPECT_EQ(link.Open(HKEY_LOCAL_MACHINE, kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK), DWORD{0});
        EXPECT_TRUE(DeleteKeyByHandle(link.Get()));
    }

    /// All that an installation touches.
    static std::wstring Snapshot()
    {
        std::wstring text;
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            const auto entry = TxCtl::CServiceManager(SC_MANAGER_CONNECT).FindConfig(service);
            text += entry ? entry->imagePath + L"\n" : L"no entry\n";
        }
        for (const std::wstring path : {kProductKey32, kClasses})
        {
            addKey(path, text);
        }
        return text;
    }

private:
    static constexpr wchar_t kClasses[] = L"Software\\Classes\\CLSID";

    /// With types and bytes. Of the classes only those of this test.
    static void addKey(const std::wstring& path, std::wstring& text)
    {
        Basalt::CRegKey key;
        EXPECT_EQ(key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ), DWORD{0});
        text += L"[" + path + L"]\n";
        for (const std::wstring& name : TxCtl::ValueNames(key, path))
        {
            DWORD type = REG_NONE;
            std::vector<BYTE> data;
            EXPECT_EQ(key.ReadValue(name.c_str(), type, data), DWORD{0});
            text +=
                name + L"=" + std::to_wstring(type) + L":" + std::wstring(data.begin(), data.end()) + L"\n";
        }
        for (const std::wstring& name : TxCtl::SubKeyNames(key, path))
        {
            if (path != kClasses || std::wstring(kOneClass).starts_with(name.substr(0, 30)))
            {
                addKey(path + L"\\" + name, text);
            }
        }
    }

    static void forgetEntries()
    {
        const TxCtl::CServiceManager manager(SC_MANAGER_CONNECT);
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            manager.FindConfig(service) ? manager.Delete(service) : void();
        }
    }

    CTestKey m_product{HKEY_LOCAL_MACHINE, kProductKey32};
    CTestKey m_one{HKEY_LOCAL_MACHINE, std::wstring(kClasses) + L"\\" + kOneClass, false};
    CTestKey m_other{HKEY_LOCAL_MACHINE, std::wstring(kClasses) + L"\\" + kOtherClass, false};
};

int s_untilFailure; ///< Calls that go well before some fail, and how many fail then.
int s_failures;

/// Stands in for a function of the system that changes something: fails when its turn has come.
/// @tparam number makes functions of one type different ones.
template <int number, typename Function>
class CFailing;

template <int number, typename Result, typename... Arguments>
class CFailing<number, Result WINAPI(Arguments...)>
{
public:
    explicit CFailing(const char* name) : m_patch(name, &Call)
    {
        s_real = RealFunction<Result WINAPI(Arguments...)>(name, L"advapi32.dll");
        EXPECT_TRUE(m_patch.IsActive() && s_real != nullptr) << name;
    }

private:
    static Result WINAPI Call(Arguments... arguments)
    {
        if (s_untilFailure-- > 0 || s_failures-- <= 0)
        {
            return s_real(arguments...);
        }
        ::SetLastError(ERROR_ACCESS_DENIED);
        if constexpr (std::is_same_v<Result, LSTATUS>)
        {
            return ERROR_ACCESS_DENIED;
        }
        return Result{};
    }

    static inline Result(WINAPI* s_real)(Arguments...) = nullptr;
    CImportPatch m_patch;
};

struct FailingSystem
{
    CFailing<0, decltype(::RegCreateKeyExW)> createKey{"RegCreateKeyExW"};
    CFailing<1, decltype(::RegSetValueExW)> setValue{"RegSetValueExW"};
    CFailing<2, decltype(::RegDeleteValueW)> deleteValue{"RegDeleteValueW"};
    CFailing<3, decltype(::RegDeleteKeyW)> deleteKey{"RegDeleteKeyW"};
    CFailing<4, decltype(::CreateServiceW)> create{"CreateServiceW"};
    CFailing<5, decltype(::ChangeServiceConfigW)> change{"ChangeServiceConfigW"};
    CFailing<6, decltype(::DeleteService)> remove{"DeleteService"};
};

TEST_F(InstallTest, TheLoggerReadsWhatIsSet)
{
    const struct
    {
        const wchar_t* name;
        const wchar_t* value;
    } table[] = {
        {L"mechanism", L"file"},
        {L"level", L"6"},
        {L"fields", L"process,function"},
        {L"folder", L"C:/logs"},
        {L"entries", L"12"},
        {L"old-files", L"34"},
        {L"mutex", L"off"},
        {L"tag", L"Host one"},
        {L"file", L"host.log"},
        {L"controller:WSS", L"C:/c.dll"},
    };
    for (const auto& row : table)
    {
        EXPECT_EQ(RunCtl({L"log", L"set", row.name, row.value}).exitCode, 0);
    }
    const ETWLogging::LogSettings settings = ETWLogging::ReadLogSettings(); // Through the link.
    EXPECT_EQ(settings.mechanism, ETWLogging::kFileMechanism);
    EXPECT_EQ(settings.threshold, 6U);
    EXPECT_EQ(settings.options, DWORD{ETWLogging::LogOptionProcess | ETWLogging::LogOptionFunction});
    EXPECT_EQ(settings.folder, L"C:\\logs");
    EXPECT_EQ(settings.entriesPerFile, 12U);
    EXPECT_EQ(settings.oldFiles, 34U);
    EXPECT_FALSE(settings.useMutex);
    EXPECT_EQ(settings.tag, L"Host one");
    EXPECT_EQ(settings.fileName, L"host.log");
    std::wstring controller;
    EXPECT_TRUE(ETWLogging::LogProperties().GetControllerPath(L"WSS", controller));
    EXPECT_EQ(controller, L"C:\\c.dll");
    for (const auto& [fields, option] :
         {std::pair{L"tag", ETWLogging::LogOptionTag}, {L"source", ETWLogging::LogOptionSource}})
    {
        EXPECT_EQ(RunCtl({L"log", L"set", L"fields", fields}).exitCode, 0);
        EXPECT_EQ(ETWLogging::ReadLogSettings().options, DWORD{option});
    }
    EXPECT_EQ(RunCtl({L"log", L"set", L"mechanism", L"events"}).exitCode, 0);
    EXPECT_EQ(ETWLogging::ReadLogMechanism(), 2U);
}

TEST_F(InstallTest, AFailureInTheMiddleLeavesEverythingAsItWas)
{
    Basalt::CRegKey list;
    ASSERT_EQ(list.Create(HKEY_LOCAL_MACHINE, kListKey, KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(list.WriteValue(L"", REG_EXPAND_SZ, L"x", 4), DWORD{0}); // Another type than the tool's.
    ASSERT_EQ(list.WriteDword(L"WSSOptimalBucketUpperLimit", 7), DWORD{0});
    const FailingSystem system;
    const struct
    {
        const char* name;
        std::function<CtlResult()> run;
        int calls; ///< that it makes at least
    } table[] = {
        {"new service", [] { return Install(L"G", L"txctl-a", kOneClass); }, 7},
        {"new group", [] { return Install(L"H", L"txctl-b", kOneClass); }, 6},
        {"other class", [] { return Install(L"H", L"txctl-b", kOtherClass); }, 6},
        {"class of others", [] { return RunCtl({L"remove", L"H", L"txctl-b"}); }, 7},
        {"first of the list", [] { return RunCtl({L"remove", L"G", L"x"}); }, 1},
        {"last of the group", [] { return RunCtl({L"remove", L"G", L"txctl-a"}); }, 9},
    };
    for (const auto& row : table)
    {
        const std::wstring before = Snapshot();
        for (int calls = 0;; ++calls)
        {
            SCOPED_TRACE(row.name + (": call " + std::to_string(calls)));
            s_untilFailure = calls;
            s_failures = 1;

            const CtlResult result = row.run();

            if (s_failures == 1)
            {
                EXPECT_EQ(result.exitCode, 0) << result;
                EXPECT_GE(calls, row.calls);
                EXPECT_NE(Narrow(Snapshot()), Narrow(before));
                break;
            }
            ASSERT_EQ(Narrow(Snapshot()), Narrow(before));
            EXPECT_EQ(result.exitCode, 1);
            EXPECT_NE(result.error.find(L"': error 5: "), std::wstring::npos) << result;
            EXPECT_TRUE(result.error.ends_with(L"\nAll changes were undone.\n")) << result;
            EXPECT_EQ(result.out, L"");
        }
    }
}

TEST_F(InstallTest, WhatCannotBeUndoneIsNamed)
{
    const FailingSystem system;
    s_untilFailure = 4;
    s_failures = 100;
    const std::wstring path = L"Software\\Classes\\CLSID\\" + std::wstring(kOneClass);
    const std::wstring end = L"': " + TxCtl::DescribeError(ERROR_ACCESS_DENIED) + L"\n";
    const std::wstring stays = L"  cannot put back '" + path;

    const CtlResult result = Install(L"G", L"txctl-a", kOneClass);

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(
        Narrow(result.error),
        Narrow(
            L"txsvcctl: cannot create registry key '" + std::wstring(kProductKey32) + L"\\Platform" + end +
            L"The changes were undone, but for:\n" + stays + L"\\InprocServer32\\ThreadingModel" + end +
            stays + L"\\InprocServer32" + end + stays + L"\\InprocServer32" + end + stays + end));
}

/// Another run of the tool, which comes when this one is about to write a list that lacks its service.
std::thread s_other;
thread_local bool s_isOther = false;
HANDLE s_isHeldUp; ///< Or has ended.
CtlResult s_otherResult;

LSTATUS WINAPI WriteLate(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size)
{
    if (!s_isOther && std::wstring_view(reinterpret_cast<const wchar_t*>(data)) == L"txctl-a")
    {
        s_other = std::thread([] {
            s_isOther = true;
            s_otherResult = Install(L"G", L"txctl-b", kOneClass);
            ::SetEvent(s_isHeldUp);
        });
        ::WaitForSingleObject(s_isHeldUp, INFINITE);
    }
    return RealFunction<decltype(::RegSetValueExW)>("RegSetValueExW", L"advapi32.dll")(
        key, name, reserved, type, data, size);
}

DWORD WINAPI TellOfWaiting(HANDLE handle, DWORD milliseconds)
{
    auto* const wait = RealFunction<decltype(::WaitForSingleObject)>("WaitForSingleObject");
    if (s_isOther && wait(handle, 0) == WAIT_TIMEOUT)
    {
        ::SetEvent(s_isHeldUp);
    }
    return wait(handle, milliseconds);
}

TEST_F(InstallTest, TwoRunsAtOnceLoseNoService)
{
    const Basalt::CHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    s_isHeldUp = event.Get();
    CtlResult result;
    {
        const CImportPatch patches[] = {
            {"RegSetValueExW", &WriteLate}, {"WaitForSingleObject", &TellOfWaiting}};

        result = Install(L"G", L"txctl-a", kOneClass);
        ASSERT_TRUE(s_other.joinable());
        s_other.join();
    }

    EXPECT_EQ(result.exitCode + s_otherResult.exitCode, 0) << result << s_otherResult;
    Basalt::CRegKey key;
    std::wstring list;
    EXPECT_EQ(key.Open(HKEY_LOCAL_MACHINE, kListKey, KEY_READ), DWORD{0});
    EXPECT_EQ(key.ReadString(L"", list), DWORD{0});
    EXPECT_EQ(Narrow(list), "txctl-a;txctl-b");
}

TEST_F(InstallTest, AnotherRunIsWaitedForButNotForever)
{
    static DWORD s_result;
    const CImportPatch patch(
        "WaitForSingleObject", +[](HANDLE, DWORD milliseconds) {
            EXPECT_EQ(milliseconds, 30000U);
            return s_result;
        });
    for (const DWORD result : {WAIT_OBJECT_0, WAIT_ABANDONED, DWORD{WAIT_TIMEOUT}, WAIT_FAILED})
    {
        s_result = result; // The next run gets the mutex of one that was ended.
        const bool isOwner = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
        EXPECT_EQ(
            Narrow(RunCtl({L"remove", L"G", L"x"}).error),
            isOwner ? "txsvcctl: there is no service 'x' of group 'G'\n"
                    : "txsvcctl: another txsvcctl is changing services; try again when it has ended\n");
    }
}

} // namespace
