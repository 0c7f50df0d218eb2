#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "contract/Keys.h"
#include "host/ProcessSecurity.h"
#include "host/TxSvcHost.h"
#include "host/TxSvcHostMain.h"
#include "logging/logger/LoggingIf.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/NoMemory.h"
#include "support/TestKey.h"

namespace
{

/// o for an owner, g for a group, e and its rights for each entry of the DACL that allows everyone something.
std::string Describe(PSECURITY_DESCRIPTOR descriptor)
{
    PSID owner = nullptr;
    PSID group = nullptr;
    ACL* dacl = nullptr;
    BOOL present = FALSE;
    BOOL defaulted[3] = {};
    ::GetSecurityDescriptorOwner(descriptor, &owner, &defaulted[0]);
    ::GetSecurityDescriptorGroup(descriptor, &group, &defaulted[1]);
    ::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted[2]);
    std::string text = defaulted[0] || defaulted[1] || defaulted[2] ? "defaulted" : "";
    text += std::string(owner != nullptr ? "o" : "") + (group != nullptr ? "g" : "");
    for (DWORD i = 0; present && i < dacl->AceCount; ++i)
    {
        SID everyone{SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ::GetAce(dacl, i, reinterpret_cast<void**>(&ace));
        const bool isAllowed = dacl->AclRevision == ACL_REVISION &&
                               ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
                               ::EqualSid(&ace->SidStart, &everyone);
        text += isAllowed ? "e" + std::to_string(ace->Mask) : "?";
    }
    return text;
}

BOOL Fail()
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

TEST(ProcessSecurity, AFailingStepLeavesWhatStandsSoFar)
{
    const auto failForSize = +[] { // As the first of two calls does.
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    };
    const struct
    {
        const char* import;
        BOOL (*fake)();
        const char* expected;
    } rows[] = {
        {"OpenThreadToken", &Fail, ""},
        {"GetTokenInformation", &Fail, ""},
        {"SetSecurityDescriptorOwner", &Fail, ""},
        {"SetSecurityDescriptorGroup", &Fail, ""},
        {"LookupAccountNameW", &Fail, "og"},
        {"LookupAccountNameW", failForSize, "og"},
        {"LookupAccountNameW", +[] { return TRUE; }, "og"}, // Where it must fail: asked for the sizes alone.
        {"GetSecurityDescriptorDacl", &Fail, "og"},
        {"InitializeAcl", &Fail, "og"},
        {"AddAccessAllowedAce", &Fail, "og"},
        {"SetSecurityDescriptorDacl", &Fail, "og"},
    };
    for (const auto& row : rows)
    {
        CProcessSecurity security;
        {
            const CImportPatch patch(row.import, row.fake);
            ASSERT_TRUE(patch.IsActive());
            security.Build();
        }
        EXPECT_EQ(Describe(security.Descriptor()), row.expected) << row.import;
    }
    CProcessSecurity security;
    security.Build();
    EXPECT_TRUE(security.AllowAccount(L"Everyone", 2));
    EXPECT_EQ(Describe(security.Descriptor()), "oge1e2") << "behind the entries that are there";
}

/// In their order: i for COM initialised, s secured, r class object registered, d services dispatched, u COM
/// uninitialised, v class object revoked; ? for one of them with arguments that are not right.
std::string g_calls;

template <char Call>
HRESULT Note()
{
    g_calls += Call;
    return S_OK;
}
HRESULT WINAPI FakeSecurity(
    void* descriptor,
    LONG services,
    void*,
    void*,
    DWORD authentication,
    DWORD impersonation,
    void*,
    DWORD flags)
{
    const CNoMemory::CExempt exempt;
    const bool isRight = Describe(descriptor) == "oge1" && services == -1 &&
                         authentication == RPC_C_AUTHN_LEVEL_DEFAULT &&
                         impersonation == RPC_C_IMP_LEVEL_IMPERSONATE && flags == EOAC_NONE;
    g_calls += isRight ? 's' : '?';
    return S_OK;
}
BOOL WINAPI FakeDispatcher(const SERVICE_TABLE_ENTRYW* table)
{
    const CNoMemory::CExempt exempt;
    std::wstring names;
    for (; table->lpServiceProc == &CTxSvcHostProxy::GenericServiceMain; ++table)
    {
        names += table->lpServiceName;
    }
    g_calls +=
        names == L"ba" && table->lpServiceName == nullptr && table->lpServiceProc == nullptr ? 'd' : '?';
    return TRUE;
}

HRESULT WINAPI FakeRegister(REFCLSID, IUnknown*, DWORD, DWORD, DWORD* cookie)
{
    *cookie = 1;
    return Note<'r'>();
}
void WINAPI FakeCoUninitialize()
{
    g_calls += 'u';
    throw 5; // Hosted code that breaks on its way out.
}

class HostTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_group.Create(m_root.Key().Get(), L"g", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(m_group.WriteString(L"", L"b;a"), 0U);
    }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    Basalt::CRegKey m_group;
    CFakeTrace m_log;
    wchar_t m_program[8] = L"program";
    wchar_t m_entry[3] = L"/g";
    wchar_t* m_argv[3] = {m_program, m_entry, nullptr};

private:
    CImportPatch m_patches[6] = {
        {"CoInitializeEx", &Note<'i'>},
        {"CoInitializeSecurity", &FakeSecurity},
        {"CoRegisterClassObject", &FakeRegister},
        {"StartServiceCtrlDispatcherW", &FakeDispatcher},
        {"CoUninitialize", &FakeCoUninitialize},
        {"CoRevokeClassObject", &Note<'v'>}};
};

TEST_F(HostTest, EachFailingCallHasItsLineAndLeavesComAsItWas)
{
    const auto pointer = [](auto* function) { return reinterpret_cast<void*>(function); };
    const struct
    {
        const char* import;
        void* fake;
        DWORD exitCode;
        const char* calls;
        const wchar_t* line;
        bool isBandStored;
    } rows[] = {
        {"", nullptr, 0, "isrduv", L"during CoUninitialize", true},
        {"CoInitializeEx", pointer(+[] { return CO_E_INIT_TLS; }), 0x4006, "", L"hr=0x80004006", false},
        {"CoInitializeSecurity",
         pointer(+[] { return RPC_E_TOO_LATE; }),
         0x0119,
         "iu",
         L"hr=0x80010119",
         false},
        {"CreateTimerQueue", pointer(&Fail), 0, "isrduv", L"initialize working set handler", false},
        {"CloseHandle", pointer(&Fail), 0, "isrduv", L"de-initialization failed", false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.line));
        m_log.Clear();
        g_calls.clear();
        static_cast<void>(m_group.DeleteValue(L"WSSOptimalBucketUpperLimit"));
        DWORD exitCode = 0;
        {
            const CImportPatch patch(row.import, row.fake);
            EXPECT_EQ(patch.IsActive(), row.fake != nullptr);
            CTxSvcHost host;
            exitCode = host.Start(2, m_argv);
        }

        DWORD band = 0;
        EXPECT_EQ(exitCode, row.exitCode);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_EQ(m_log.CountContaining(ETWLogging::LogError, row.line), 1U);
        EXPECT_EQ(m_group.ReadDword(L"WSSOptimalBucketUpperLimit", band) == ERROR_SUCCESS, row.isBandStored);
    }
}

TEST_F(HostTest, AProcessMayHaveNoArguments)
{
    EXPECT_EQ(TxSvcHostMain(0, m_argv), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(m_log.Has(ETWLogging::LogNormal, L"Tarvex Shared Service Host [n/a] v6.3.3036.0 starting"));
    CTxSvcHost host;
    EXPECT_EQ(host.Start(2, nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_TRUE(m_log.Has(ETWLogging::LogError, L"The argv is NULL"));
}

/// The token's, as the system gives them.
std::vector<BYTE> Privileges()
{
    Basalt::CHandle token;
    std::vector<BYTE> block(4096);
    DWORD size = 0;
    ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.Put());
    ::GetTokenInformation(token.Get(), TokenPrivileges, block.data(), 4096, &size);
    return block;
}

TEST_F(HostTest, WithoutMemoryAtAnyPointProcessEntryUndoesWhatItDid)
{
    const std::vector<BYTE> before = Privileges();
    int fatal = 0;
    for (int allowed = 0;; ++allowed)
    {
        SCOPED_TRACE(allowed);
        g_calls.clear();
        const CNoMemory noMemory(allowed);
        const int exitCode = TxSvcHostMain(2, m_argv);
        const CNoMemory::CExempt exempt;
        if (!noMemory.HasFailed())
        {
            break;
        }
        fatal += exitCode == ERROR_OUTOFMEMORY ? 1 : 0;
        ASSERT_EQ(Privileges(), before);
        CTxSvcHostConfig::ReleaseInstance();
    }
    EXPECT_GT(fatal, 5);
}

} // namespace
