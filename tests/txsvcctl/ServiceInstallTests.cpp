#include <windows.h>

#include "CtlTest.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "txsvcctl/ServiceManager.h"
#include "txsvcctl/common/ViewLink.h"

using TxCtl::CServiceManager;
using TxCtl::ServiceConfig;
using TxCtl::ViewLinkState;

namespace
{

class ServiceInstallTest : public CtlTest
{
protected:
    /// Without image path when there is none.
    static ServiceConfig Entry(const std::wstring& service)
    {
        return CServiceManager(SC_MANAGER_CONNECT).FindConfig(service).value_or(ServiceConfig{});
    }
    static bool HasEntry(const std::wstring& service) { return !Entry(service).imagePath.empty(); }

    static std::wstring ServerKey(const std::wstring& clsid = kTestClsid)
    {
        return ClassKey(clsid) + L"\\InprocServer32";
    }

    /// All that an installation touches, in one text.
    static std::wstring Snapshot()
    {
        std::wstring text;
        for (const wchar_t* const service : {L"txctl-a", L"txctl-b"})
        {
            const ServiceConfig entry = Entry(service);
            text += entry.imagePath + L"|" + entry.displayName;
            text += L"|" + Text(GroupKey(), service).value_or(L"no CLSID") + L"\n";
        }
        for (const wchar_t* const clsid : {kTestClsid, kOtherClsid})
        {
            text += Text(ServerKey(clsid)).value_or(HasKey(ClassKey(clsid)) ? L"no module" : L"no class") +
                    L"|" + Text(ServerKey(clsid), L"ThreadingModel").value_or(L"no model") + L"\n";
        }
        return text + Text(GroupKey()).value_or(HasKey(GroupKey()) ? L"no list" : L"no group");
    }
};

SC_HANDLE WINAPI FailToCreate(
    SC_HANDLE,
    LPCWSTR,
    LPCWSTR,
    DWORD,
    DWORD,
    DWORD,
    DWORD,
    LPCWSTR,
    LPCWSTR,
    LPDWORD,
    LPCWSTR,
    LPCWSTR,
    LPCWSTR)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

BOOL WINAPI
FailToChange(SC_HANDLE, DWORD, DWORD, DWORD, LPCWSTR, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

BOOL WINAPI FailToDelete(SC_HANDLE)
{
    ::SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
    return FALSE;
}

LSTATUS WINAPI FailToDeleteKey(HKEY, LPCWSTR)
{
    return ERROR_ACCESS_DENIED;
}

TEST_F(ServiceInstallTest, AServiceIsInstalledWhereTheHostLooksAndRemovedWithoutATrace)
{
    const std::wstring service = L"txctl \u00e4";
    const std::wstring lowerClsid = L"{7c1d3b52-9e40-4b6a-8f21-ad00c0de0001}";

    const CtlResult installed =
        Install(service, {L"--display-name", L"Name \u00e4", L"--start", L"auto"}, kTestGroup, lowerClsid);

    ASSERT_EQ(installed.exitCode, 0) << Narrow(installed.error);
    EXPECT_EQ(TxCtl::InspectViewLink(), ViewLinkState::Link);
    const std::wstring hostsKey =
        std::wstring(Contract::kProductKey) + L"\\Platform\\TxSvcHost\\" + kTestGroup;
    EXPECT_EQ(Text(hostsKey), service);
    EXPECT_EQ(Text(hostsKey, service), kTestClsid);
    EXPECT_EQ(Text(ServerKey()), Module());
    EXPECT_EQ(Text(ServerKey(), L"ThreadingModel"), L"Both");
    const ServiceConfig entry = Entry(service);
    EXPECT_EQ(entry.type, DWORD{SERVICE_WIN32_SHARE_PROCESS});
    EXPECT_EQ(entry.startType, DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(entry.imagePath, L"\"" + Host() + L"\" /" + kTestGroup);
    EXPECT_EQ(entry.displayName, L"Name \u00e4");

    // A host that ran has left its learnt band, which does not keep a group alive.
    Basalt::CRegKey key;
    ASSERT_EQ(key.Open(HKEY_LOCAL_MACHINE, GroupKey().c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(key.WriteDword(L"WSSOptimalBucketUpperLimit", 1), DWORD{0});
    key.Close();

    const CtlResult removed = Run({L"remove", kTestGroup, service});

    EXPECT_EQ(removed.exitCode, 0) << Narrow(removed.error);
    EXPECT_FALSE(HasEntry(service));
    EXPECT_FALSE(HasKey(GroupKey()));
    EXPECT_FALSE(HasKey(ClassKey()));
}

TEST_F(ServiceInstallTest, InstallingAgainUpdatesWhatIsGivenAndKeepsTheRest)
{
    ASSERT_EQ(Install(L"txctl-a", {L"--display-name", L"Shown"}).exitCode, 0);
    const std::wstring first = Snapshot();

    const CtlResult same = Install(L"TXCTL-A");

    EXPECT_EQ(same.exitCode, 0) << Narrow(same.error);
    EXPECT_EQ(Snapshot(), first);

    const CtlResult changed = Install(L"txctl-a", {L"--start", L"auto"}, kTestGroup, kOtherClsid);

    EXPECT_EQ(changed.exitCode, 0) << Narrow(changed.error);
    EXPECT_EQ(Entry(L"txctl-a").displayName, L"Shown");
    EXPECT_EQ(Entry(L"txctl-a").startType, DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(Text(GroupKey(), L"txctl-a"), kOtherClsid);
    EXPECT_EQ(Text(ServerKey(kOtherClsid)), Module());
    EXPECT_FALSE(HasKey(ClassKey(kTestClsid)));
}

TEST_F(ServiceInstallTest, AClassGoesWithTheLastServiceThatUsesIt)
{
    Write(GroupKey(L"OTHER"), {}, L"x;txctl-b"); // By hand, in lower case.
    Write(GroupKey(L"OTHER"), L"txctl-b", L"{7c1d3b52-9e40-4b6a-8f21-ad00c0de0001}");
    ASSERT_EQ(Install(L"txctl-a").exitCode, 0);

    EXPECT_EQ(Run({L"remove", kTestGroup, L"txctl-a"}).exitCode, 0);
    EXPECT_EQ(Text(ServerKey()), Module());

    EXPECT_EQ(Run({L"remove", L"OTHER", L"txctl-b"}).exitCode, 0);
    EXPECT_FALSE(HasKey(ClassKey()));
    EXPECT_EQ(Text(GroupKey(L"OTHER")), L"x");
}

TEST_F(ServiceInstallTest, WhatBelongsToOthersIsRefusedAndLeftAlone)
{
    ASSERT_EQ(Install(L"txctl-a").exitCode, 0);
    const CTestFolder folder;
    const std::wstring copy = folder.File(L"copy.dll");
    ASSERT_TRUE(::CopyFileW(Module().c_str(), copy.c_str(), TRUE));
    Write(ServerKey(kOtherClsid), {}, L"C:\\foreign.dll");
    const std::wstring before = Snapshot();
    const struct
    {
        const char* name;
        CtlResult result;
        const wchar_t* part;
    } table[] = {
        {"in another group", Install(L"TxCtl-A", {}, L"OTHER"), L"'TXCTL' already"},
        {"another program's service", Install(L"MSIServer"), L"does not run the group"},
        {"another service's class",
         Install(L"txctl-b", {L"--module", copy}),
         L"service 'txctl-a' of group 'TXCTL'"},
        {"another program's class", Install(L"txctl-b", {}, kTestGroup, kOtherClsid), L"C:\\foreign.dll"},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.result.exitCode, 1);
        EXPECT_NE(row.result.error.find(row.part), std::wstring::npos) << Narrow(row.result.error);
    }
    EXPECT_EQ(Snapshot(), before);
    EXPECT_FALSE(HasKey(GroupKey(L"OTHER")));

    EXPECT_EQ(Install(L"txctl-b", {L"--replace-module"}, kTestGroup, kOtherClsid).exitCode, 0);
    EXPECT_EQ(Text(ServerKey(kOtherClsid)), Module());
}

TEST_F(ServiceInstallTest, RemovingClearsHalfAServiceAndLeavesAForeignEntry)
{
    Write(GroupKey(), {}, L"MSIServer,txctl-a");
    Write(GroupKey(), L"MSIServer", L"..\\..\\Tarvex"); // As a path it would lead out of the classes.

    const CtlResult foreign = Run({L"remove", kTestGroup, L"MSIServer"});
    const CtlResult half = Run({L"remove", kTestGroup, L"txctl-a"});

    EXPECT_EQ(foreign.exitCode, 0) << Narrow(foreign.error);
    EXPECT_NE(foreign.error.find(L"stays"), std::wstring::npos);
    EXPECT_TRUE(HasEntry(L"MSIServer"));
    EXPECT_EQ(half.exitCode, 0) << Narrow(half.error);
    EXPECT_FALSE(HasKey(GroupKey()));
}

TEST_F(ServiceInstallTest, AFailureInTheMiddleLeavesEverythingAsItWas)
{
    const std::wstring empty = Snapshot();
    {
        const CImportPatch patch("CreateServiceW", &FailToCreate);
        ASSERT_TRUE(patch.IsActive());

        const CtlResult result = Install(L"txctl-a");

        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.error.find(L"txsvcctl: cannot create service 'txctl-a': error 5: "), 0U);
        EXPECT_NE(result.error.find(L"All changes were undone."), std::wstring::npos) << Narrow(result.error);
        EXPECT_EQ(Snapshot(), empty);
        EXPECT_FALSE(HasKey(L"Software\\Wow6432Node\\Tarvex\\Platform"));
    }
    ASSERT_EQ(Install(L"txctl-a").exitCode, 0);
    const std::wstring installed = Snapshot();
    {
        const CImportPatch patch("ChangeServiceConfigW", &FailToChange);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(Install(L"txctl-a", {}, kTestGroup, kOtherClsid).exitCode, 1);
        EXPECT_EQ(Snapshot(), installed);
    }
    {
        const CImportPatch patch("DeleteService", &FailToDelete);
        ASSERT_TRUE(patch.IsActive());
        const CtlResult result = Run({L"remove", kTestGroup, L"txctl-a"});
        EXPECT_NE(result.error.find(L"error 1072"), std::wstring::npos) << Narrow(result.error);
        EXPECT_EQ(Snapshot(), installed);
    }
}

TEST_F(ServiceInstallTest, WhatCannotBeUndoneIsNamed)
{
    const CImportPatch create("CreateServiceW", &FailToCreate);
    const CImportPatch deleteKey("RegDeleteKeyW", &FailToDeleteKey);
    ASSERT_TRUE(create.IsActive() && deleteKey.IsActive());

    const CtlResult result = Install(L"txctl-a");

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.error.find(L"The changes were undone, but for:"), std::wstring::npos);
    EXPECT_NE(result.error.find(L"cannot put back '" + GroupKey() + L"': error 5"), std::wstring::npos)
        << Narrow(result.error);
}

TEST_F(ServiceInstallTest, AKeyInPlaceOfTheLinkIsReplacedOnlyOnRequest)
{
    Write(std::wstring(Contract::kProductKey) + L"\\Old", L"setting", L"kept");

    for (const CtlResult& refused : {Install(L"txctl-a"), Run({L"log", L"set", L"level", L"4"})})
    {
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_NE(refused.error.find(L"--replace-key"), std::wstring::npos) << Narrow(refused.error);
    }
    EXPECT_EQ(Text(std::wstring(Contract::kProductKey) + L"\\Old", L"setting"), L"kept");
    EXPECT_FALSE(HasEntry(L"txctl-a"));
    EXPECT_NE(Run({L"list"}).error.find(L"warning"), std::wstring::npos);

    EXPECT_EQ(Run({L"log", L"set", L"level", L"4", L"--replace-key"}).exitCode, 0);
    EXPECT_EQ(TxCtl::InspectViewLink(), ViewLinkState::Link);
    EXPECT_FALSE(HasKey(std::wstring(Contract::kProductKey) + L"\\Old"));
}

TEST_F(ServiceInstallTest, AnEmptyKeyAndALinkToElsewhereAreToldApart)
{
    Basalt::CRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS), DWORD{0});
    key.Close();
    EXPECT_EQ(Install(L"txctl-a").exitCode, 0);
    EXPECT_EQ(TxCtl::InspectViewLink(), ViewLinkState::Link);

    ASSERT_TRUE(CreateRegistryLink(Contract::kProductKey, L"Software\\Elsewhere", true, false));
    EXPECT_EQ(Install(L"txctl-a").exitCode, 1);
    EXPECT_EQ(Install(L"txctl-a", {L"--replace-key"}).exitCode, 0);
    EXPECT_EQ(TxCtl::InspectViewLink(), ViewLinkState::Link);
}

} // namespace
