#include <windows.h>
#include <objbase.h>
#include <sddl.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>

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

/// O for an owner, G for a group, and the DACL as the system writes it.
std::string Describe(PSECURITY_DESCRIPTOR descriptor)
{
    constexpr SECURITY_INFORMATION kAll =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    char* buffer = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorA(
        descriptor, SDDL_REVISION_1, kAll, &buffer, nullptr);
    const std::string text = buffer;
    ::LocalFree(buffer);
    const std::size_t dacl = text.find("D:(");
    return std::string(text.starts_with("O:") ? "O" : "") +
           (text.find("G:") != std::string::npos ? "G" : "") +
           (dacl != std::string::npos ? text.substr(dacl) : "");
}

constexpr char kEveryone[] = "OGD:(A;;CC;;;WD)";

BOOL Fail()
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

TEST(ProcessSecurity, AFailingStepLeavesWhatStandsSoFar)
{
    const std::pair<const char*, const char*> rows[] = {
        {"OpenThreadToken", ""},
        {"GetTokenInformation", ""},
        {"SetSecurityDescriptorOwner", ""},
        {"SetSecurityDescriptorGroup", ""},
        {"LookupAccountNameW", "OG"},
        {"InitializeAcl", "OG"},
        {"AddAccessAllowedAce", "OG"},
    };
    CProcessSecurity security;
    for (const auto& [import, expected] : rows)
    {
        const CImportPatch patch(import, &Fail);
        security.Build();
        EXPECT_EQ(Describe(security.Descriptor()), expected) << import;
    }
    security.Build();
    EXPECT_TRUE(security.AllowAccount(L"Everyone", 2));
    EXPECT_EQ(Describe(security.Descriptor()), std::string(kEveryone) + "(A;;DC;;;WD)");
}

/// In their order: i for COM initialised, s secured, r class object registered, d services dispatched, u COM
/// uninitialised, v class object revoked; ? for security that is not right.
std::string g_calls;

template <char Call>
HRESULT Note()
{
    g_calls += Call;
    return S_OK;
}
HRESULT WINAPI FakeSecurity(
    void* descriptor, LONG services, void*, void*, DWORD authentication, DWORD impersonation, void*, DWORD)
{
    const CNoMemory::CExempt exempt;
    const bool isRight = Describe(descriptor) == kEveryone && services == -1 &&
                         authentication == RPC_C_AUTHN_LEVEL_DEFAULT &&
                         impersonation == RPC_C_IMP_LEVEL_IMPERSONATE;
    g_calls += isRight ? 's' : '?';
    return S_OK;
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
    wchar_t m_entry[3] = L"/g";
    wchar_t* m_argv[2] = {m_entry, m_entry};

private:
    CImportPatch m_patches[6] = {
        {"CoInitializeEx", &Note<'i'>},
        {"CoInitializeSecurity", &FakeSecurity},
        {"CoRegisterClassObject", &FakeRegister},
        {"StartServiceCtrlDispatcherW", +[] { return Note<'d'>() == S_OK; }},
        {"CoUninitialize", &FakeCoUninitialize},
        {"CoRevokeClassObject", &Note<'v'>}};
};

TEST_F(HostTest, EachFailingCallHasItsLineAndLeavesComAsItWas)
{
    const struct
    {
        const char* import;
        HRESULT (*fake)();
        DWORD exitCode;
        const char* calls;
        const wchar_t* line;
    } rows[] = {
        {"", nullptr, 0, "isrduv", L"during CoUninitialize"},
        {"CoInitializeEx", +[] { return CO_E_INIT_TLS; }, 0x4006, "", L"hr=0x80004006"},
        {"CoInitializeSecurity", +[] { return RPC_E_TOO_LATE; }, 0x0119, "iu", L"hr=0x80010119"},
        {"CreateTimerQueue", +[] { return HRESULT{0}; }, 0, "isrduv", L"initialize working set handler"},
    };
    for (const auto& row : rows)
    {
        const CFakeTrace log;
        g_calls.clear();
        const CImportPatch patch(row.import, row.fake);
        EXPECT_EQ(CTxSvcHost().Start(2, m_argv), row.exitCode);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_EQ(log.CountContaining(ETWLogging::LogError, row.line), 1U);
    }
}

TEST_F(HostTest, WithoutMemoryAtAnyPointProcessEntryUndoesWhatItDid)
{
    int fatal = 0;
    bool hasFailed = true;
    for (int allowed = 0; hasFailed; ++allowed)
    {
        g_calls.clear();
        const CNoMemory noMemory(allowed);
        fatal += TxSvcHostMain(2, m_argv) == ERROR_OUTOFMEMORY ? 1 : 0;
        hasFailed = noMemory.HasFailed();
        const CNoMemory::CExempt exempt;
        EXPECT_EQ(g_calls.find('i') == std::string::npos, g_calls.find('u') == std::string::npos) << allowed;
    }
    EXPECT_GT(fatal, 5);
}

} // namespace
