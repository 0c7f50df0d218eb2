#include "host/TxSvcHost.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "contract/Keys.h"
#include "host/TxSvcHostMain.h"
#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/NoMemory.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

/// In their order: i for COM initialised, s secured, d services dispatched, u COM uninitialised.
std::string g_calls;

/// What the system answers.
struct Answers
{
    HRESULT com = S_OK;
    HRESULT security = S_OK;
    BOOL dispatched = TRUE;
} g_answers;

HRESULT WINAPI FakeCoInitializeEx(void*, DWORD apartment)
{
    EXPECT_EQ(apartment, DWORD{COINIT_MULTITHREADED});
    g_calls += 'i';
    return g_answers.com;
}
HRESULT WINAPI FakeCoInitializeSecurity(
    PSECURITY_DESCRIPTOR descriptor,
    LONG services,
    SOLE_AUTHENTICATION_SERVICE*,
    void*,
    DWORD authentication,
    DWORD impersonation,
    void*,
    DWORD capabilities,
    void*)
{
    EXPECT_TRUE(::IsValidSecurityDescriptor(descriptor));
    EXPECT_EQ(services, -1);
    EXPECT_EQ(authentication, DWORD{RPC_C_AUTHN_LEVEL_DEFAULT});
    EXPECT_EQ(impersonation, DWORD{RPC_C_IMP_LEVEL_IMPERSONATE});
    EXPECT_EQ(capabilities, DWORD{EOAC_NONE});
    g_calls += 's';
    return g_answers.security;
}
BOOL WINAPI FakeDispatcher(const SERVICE_TABLE_ENTRYW*)
{
    g_calls += 'd';
    ::SetLastError(g_answers.dispatched ? ERROR_SUCCESS : ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    return g_answers.dispatched;
}
void WINAPI FakeCoUninitialize()
{
    g_calls += 'u';
    throw 5; // Hosted code that breaks on its way out.
}

class TxSvcHostTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_calls.clear();
        g_answers = {};
        SetServices(L"a;b");
    }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    void SetServices(const std::wstring& list)
    {
        Basalt::CRegKey group;
        ASSERT_EQ(group.Create(m_root.Key().Get(), L"g", KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(group.WriteString(L"", list), DWORD{0});
    }

    static DWORD Start(std::wstring entry)
    {
        wchar_t program[] = L"TxSvHost.exe";
        wchar_t* argv[] = {program, entry.data(), nullptr};
        CTxSvcHost host;
        return host.Start(2, argv);
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CLogCapture m_log;
    CImportPatch m_com{"CoInitializeEx", &FakeCoInitializeEx};
    CImportPatch m_security{"CoInitializeSecurity", &FakeCoInitializeSecurity};
    CImportPatch m_dispatcher{"StartServiceCtrlDispatcherW", &FakeDispatcher};
    CImportPatch m_uninitialize{"CoUninitialize", &FakeCoUninitialize};
};

TEST_F(TxSvcHostTest, TheGroupIsWhatFollowsTheFirstDelimiterOfTheFirstArgument)
{
    const CTxSvcHost host;
    const std::wstring longName(1000, L'g');
    const std::wstring longLine = L"The group name selected to run is '" + longName + L"'";
    const struct
    {
        std::wstring entry;
        std::wstring group;
        const wchar_t* line;
    } rows[] = {
        {L"/TxCoreSvc", L"TxCoreSvc", L"The group name selected to run is 'TxCoreSvc'"},
        {L"x/y/z", L"y/z", L"The group name selected to run is 'y/z'"},
        {L"//", L"/", L"The group name selected to run is '/'"},
        {L"/" + longName, longName, longLine.c_str()},
        {L"abc", L"", L"The group delimiter is not found. Group Entry 'abc'"},
        {L"", L"", L"The group delimiter is not found. Group Entry ''"},
        {L"/", L"", L"The group name is empty. Group Entry '/'"},
        {L"abc/", L"", L"The group name is empty. Group Entry 'abc/'"},
    };
    std::wstring group;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.entry.substr(0, 20)));
        std::wstring entry = row.entry;
        wchar_t other[] = L"/other";
        wchar_t* argv[] = {other, entry.data(), other, nullptr};
        group.clear();

        EXPECT_EQ(host.ParseCommandLine(3, argv, group), !row.group.empty());
        EXPECT_EQ(group, row.group);
        EXPECT_TRUE(m_log.Has(row.group.empty() ? LogError : LogNormal, row.line));
    }
    EXPECT_FALSE(host.ParseCommandLine(1, nullptr, group));
    EXPECT_TRUE(m_log.Has(
        LogError,
        L"The group index is greater, mostly insufficient arguments, group index 1, number of arguments 1"));
    EXPECT_FALSE(host.ParseCommandLine(2, nullptr, group));
    EXPECT_TRUE(m_log.Has(LogError, L"The argv is NULL"));
}

TEST_F(TxSvcHostTest, ANormalRunGoesThroughAllItsStepsInOrder)
{
    ASSERT_TRUE(
        m_com.IsActive() && m_security.IsActive() && m_dispatcher.IsActive() && m_uninitialize.IsActive());

    EXPECT_EQ(Start(L"/g"), 0U);

    EXPECT_EQ(g_calls, "isdu");
    const std::vector<std::wstring> messages = m_log.Messages();
    EXPECT_EQ(messages.front(), L"---");
    const auto added = std::find(messages.begin(), messages.end(), L"Adding services to the SCM interface");
    ASSERT_GE(messages.end() - added, 10);
    EXPECT_EQ(added[1], L"Service added to SCM interface successfully 'a'");
    EXPECT_EQ(added[2], L"Service added to SCM interface successfully 'b'");
    EXPECT_EQ(added[3], L"2 services added to SCM interface");
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"Starting SCM after "), 1U);
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"SCM stopped after "), 1U);
    EXPECT_EQ(messages.back(), L"Exception generated & suppressed during CoUninitialize");
}

TEST_F(TxSvcHostTest, EachFailureHasItsExitCodeAndLeavesComAsItWas)
{
    const struct
    {
        const wchar_t* entry;
        const wchar_t* services;
        Answers answers;
        DWORD expected;
        const char* calls;
        const wchar_t* line;
    } rows[] = {
        {L"g", L"a", {}, 87, "", L"Failed to parse the command line"},
        {L"/unknown", L"a", {}, 87, "", L"Failed to get group services unknown"},
        {L"/g", L";;", {}, 87, "", L"There are no services in the group g"},
        {L"/g", L"a", {CO_E_INIT_TLS}, 0x4006, "i", L"CoInitialize failed (hr=0x80004006)"},
        {L"/g", L"a", {S_OK, RPC_E_TOO_LATE}, 0x0119, "isu", L"CoInitializeSecurity failed (hr=0x80010119)"},
        {L"/g", L"a", {S_OK, S_OK, FALSE}, 1359, "isdu", L"SCM interface failed to start (Err=0x00000427)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.line));
        m_log.Clear();
        SetServices(row.services);
        g_answers = row.answers;
        g_calls.clear();

        EXPECT_EQ(Start(row.entry), row.expected);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_TRUE(m_log.Has(LogError, row.line));
    }
    m_root.Remove();
    CTxSvcHostConfig::ReleaseInstance();
    EXPECT_EQ(Start(L"/g"), DWORD{ERROR_INTERNAL_ERROR}) << "no root key";
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to initialize CTxSvcHostConfig"));
}

TEST_F(TxSvcHostTest, ProcessEntryWritesItsBannerUnlessTheLineHoldsTheSwitch)
{
    wchar_t program[] = L"TxSvHost.exe";
    wchar_t* argv[] = {program, nullptr};

    EXPECT_EQ(TxSvcHostMain(1, argv), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(m_log.Has(LogNormal, L"Tarvex Shared Service Host [TxSvHost.exe] v6.3.3036.0 starting"));
    EXPECT_EQ(TxSvcHostMain(0, argv), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(m_log.Has(LogNormal, L"Tarvex Shared Service Host [n/a] v6.3.3036.0 starting"));

    m_log.Clear();
    const CImportPatch patch(
        "GetCommandLineW", +[] {
            static wchar_t line[] = L"C:\\odd/startservicesfolder\\TxSvHost.exe /g";
            return static_cast<wchar_t*>(line);
        });
    ASSERT_TRUE(patch.IsActive());
    EXPECT_EQ(TxSvcHostMain(1, argv), 0);
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"starting"), 0U);
}

/// Attributes of all privileges of the process.
std::vector<DWORD> Privileges()
{
    Basalt::CHandle token;
    std::vector<BYTE> block(4096);
    DWORD size = 0;
    EXPECT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.Put()));
    EXPECT_TRUE(::GetTokenInformation(token.Get(), TokenPrivileges, block.data(), 4096, &size));
    const auto& privileges = *reinterpret_cast<const TOKEN_PRIVILEGES*>(block.data());
    std::vector<DWORD> attributes;
    for (DWORD i = 0; i < privileges.PrivilegeCount; ++i)
    {
        attributes.push_back(privileges.Privileges[i].Attributes);
    }
    return attributes;
}

TEST_F(TxSvcHostTest, WithoutMemoryAtAnyPointProcessEntryUndoesWhatItDid)
{
    wchar_t program[] = L"TxSvHost.exe";
    wchar_t entry[] = L"/g";
    wchar_t* argv[] = {program, entry, nullptr};
    const std::vector<DWORD> before = Privileges();
    int fatal = 0;
    for (int allowed = 0;; ++allowed)
    {
        SCOPED_TRACE(allowed);
        g_calls.clear();
        const CNoMemory noMemory(allowed);
        const int exitCode = TxSvcHostMain(2, argv);
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
