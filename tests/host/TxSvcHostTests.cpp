#include "host/TxSvcHost.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "host/TxSvcHostMain.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

std::vector<std::string> g_calls;
HRESULT g_comResult = S_OK;
HRESULT g_securityResult = S_OK;
BOOL g_dispatched = TRUE;

HRESULT WINAPI FakeCoInitializeEx(void*, DWORD apartment)
{
    EXPECT_EQ(apartment, DWORD{COINIT_MULTITHREADED});
    g_calls.emplace_back("initialise COM");
    return g_comResult;
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
    g_calls.emplace_back("secure COM");
    return g_securityResult;
}
BOOL WINAPI FakeDispatcher(const SERVICE_TABLE_ENTRYW*)
{
    g_calls.emplace_back("dispatch");
    ::SetLastError(g_dispatched ? ERROR_SUCCESS : ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    return g_dispatched;
}
void WINAPI FakeCoUninitialize()
{
    g_calls.emplace_back("uninitialise COM");
    throw 5; // Hosted code that breaks on its way out.
}

class TxSvcHostTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_calls.clear();
        g_comResult = S_OK;
        g_securityResult = S_OK;
        g_dispatched = TRUE;
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

    CTestKey m_root{HKEY_LOCAL_MACHINE, CTxSvcHostConfig::kRootKey};
    CLogCapture m_log;
    CImportPatch m_com{"CoInitializeEx", &FakeCoInitializeEx};
    CImportPatch m_security{"CoInitializeSecurity", &FakeCoInitializeSecurity};
    CImportPatch m_dispatcher{"StartServiceCtrlDispatcherW", &FakeDispatcher};
    CImportPatch m_uninitialize{"CoUninitialize", &FakeCoUninitialize};
};

TEST_F(TxSvcHostTest, TheGroupIsWhatFollowsTheFirstDelimiter)
{
    constexpr wchar_t kNone[] = L"The group delimiter is not found. Group Entry '";
    constexpr wchar_t kEmpty[] = L"The group name is empty. Group Entry '";
    const std::wstring longName(32000, L'g');
    const struct
    {
        std::wstring entry;
        std::wstring group;
        const wchar_t* line;
    } rows[] = {
        {L"/TxCoreSvc", L"TxCoreSvc", nullptr},
        {L"x/y/z", L"y/z", nullptr},
        {L"//", L"/", nullptr},
        {L"/ ", L" ", nullptr},
        {L"/\x4E2D", L"\x4E2D", nullptr},
        {L"/" + longName, longName, nullptr},
        {L"abc", L"", kNone},
        {L"", L"", kNone},
        {L"\\g", L"", kNone},
        {L"/", L"", kEmpty},
        {L"abc/", L"", kEmpty},
    };
    const CTxSvcHost host;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(row.entry.substr(0, 20)));
        m_log.Clear();
        std::wstring entry = row.entry;
        wchar_t program[] = L"TxSvHost.exe";
        wchar_t ignored[] = L"/other";
        wchar_t* argv[] = {program, entry.data(), ignored, nullptr};
        std::wstring group;

        EXPECT_EQ(host.ParseCommandLine(3, argv, group), row.line == nullptr);
        EXPECT_EQ(group, row.group);
        EXPECT_TRUE(row.line == nullptr || m_log.Has(LogError, row.line + row.entry + L"'"));
    }
}

TEST_F(TxSvcHostTest, TheNumberOfArgumentsIsLookedAtBeforeTheArguments)
{
    const CTxSvcHost host;
    std::wstring group;
    for (const int count : {-1, 0, 1})
    {
        EXPECT_FALSE(host.ParseCommandLine(count, nullptr, group));
    }
    EXPECT_FALSE(host.ParseCommandLine(2, nullptr, group));
    EXPECT_EQ(
        m_log.CountContaining(LogError, L"The group index is greater, mostly insufficient arguments, "), 3U);
    EXPECT_TRUE(m_log.Has(LogError, L"The argv is NULL"));
}

TEST_F(TxSvcHostTest, ANormalRunGoesThroughAllItsStepsInOrder)
{
    ASSERT_TRUE(
        m_com.IsActive() && m_security.IsActive() && m_dispatcher.IsActive() && m_uninitialize.IsActive());

    EXPECT_EQ(Start(L"/g"), 0U);

    EXPECT_EQ(
        g_calls, (std::vector<std::string>{"initialise COM", "secure COM", "dispatch", "uninitialise COM"}));
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
    using Calls = std::vector<std::string>;
    const struct
    {
        const char* name;
        std::wstring entry;
        std::wstring services;
        HRESULT com;
        HRESULT security;
        BOOL dispatched;
        DWORD expected;
        Calls calls;
        std::wstring line;
    } rows[] = {
        {"no group", L"g", L"a", S_OK, S_OK, TRUE, 87, {}, L"Failed to parse the command line"},
        {"unknown group",
         L"/unknown",
         L"a",
         S_OK,
         S_OK,
         TRUE,
         87,
         {},
         L"Failed to get group services unknown"},
        {"no services", L"/g", L";;", S_OK, S_OK, TRUE, 87, {}, L"There are no services in the group g"},
        {"no COM",
         L"/g",
         L"a",
         CO_E_INIT_TLS,
         S_OK,
         TRUE,
         CO_E_INIT_TLS & 0xFFFF,
         {"initialise COM"},
         L"CoInitialize failed (hr=0x80004006)"},
        {"no COM security",
         L"/g",
         L"a",
         S_OK,
         RPC_E_TOO_LATE,
         TRUE,
         RPC_E_TOO_LATE & 0xFFFF,
         {"initialise COM", "secure COM", "uninitialise COM"},
         L"CoInitializeSecurity failed (hr=0x80010119)"},
        {"no dispatcher",
         L"/g",
         L"a",
         S_OK,
         S_OK,
         FALSE,
         1359,
         {"initialise COM", "secure COM", "dispatch", "uninitialise COM"},
         L"SCM interface failed to start (Err=0x00000427)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        SetUp();
        m_log.Clear();
        SetServices(row.services);
        g_comResult = row.com;
        g_securityResult = row.security;
        g_dispatched = row.dispatched;

        EXPECT_EQ(Start(row.entry), row.expected);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_TRUE(m_log.Has(LogError, row.line));
    }
    m_root.Remove();
    CTxSvcHostConfig::ReleaseInstance();
    EXPECT_EQ(Start(L"/g"), DWORD{ERROR_INTERNAL_ERROR}) << "no root key";
    EXPECT_TRUE(m_log.Has(LogError, L"Failed to initialize CTxSvcHostConfig"));
}

wchar_t g_commandLine[] = L"C:\\odd/startservicesfolder\\TxSvHost.exe /g";

wchar_t* WINAPI FakeCommandLine()
{
    return g_commandLine;
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
    const CImportPatch patch("GetCommandLineW", &FakeCommandLine);
    ASSERT_TRUE(patch.IsActive());
    EXPECT_EQ(TxSvcHostMain(1, argv), 0);
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"starting"), 0U);
}

} // namespace
