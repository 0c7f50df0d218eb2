#include "proxy/FirstRunGate.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "TxSvcSubsystem.h"
#include "base/ClassObject.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

/// What the first-run service says to the next services.
struct Answer
{
    USHORT state = 65535;
    DWORD error = 0;
    HRESULT result = S_OK;
    bool throws = false;
    HRESULT created = S_OK; ///< Failed: there is no such service.
} g_answer;
ULONG g_references = 0;
int g_queries = 0;
std::vector<IID> g_asked;

class CFakeOobe final : public IOobeConfiguration
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++g_references; }
    ULONG STDMETHODCALLTYPE Release() override { return --g_references; }
    HRESULT STDMETHODCALLTYPE GetServiceEnabledState(USHORT* state, DWORD* error) override
    {
        EXPECT_EQ(*state, 65535);
        EXPECT_EQ(*error, 0U);
        ++g_queries;
        if (g_answer.throws)
        {
            throw 5;
        }
        *state = g_answer.state;
        *error = g_answer.error;
        return g_answer.result;
    }
};
CFakeOobe g_oobe;

class CFakeClassObject final : public ITxSvcClassObject
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        EXPECT_EQ(riid, IID_IOobeConfiguration);
        g_oobe.AddRef();
        *object = &g_oobe;
        return S_OK;
    }
};
CFakeClassObject g_classObject;

HRESULT WINAPI FakeCoGetClassObject(REFCLSID clsid, DWORD context, void*, REFIID riid, void** object)
{
    EXPECT_EQ(clsid, CLSID_OobeConfiguration);
    EXPECT_EQ(context, DWORD{CLSCTX_INPROC_SERVER});
    g_asked.push_back(riid);
    *object = FAILED(g_answer.created) ? nullptr : &g_classObject;
    return g_answer.created;
}

class FirstRunGateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_answer = {};
        g_queries = 0;
        g_asked.clear();
        SetRequired(1);
        Basalt::CRegKey list;
        ASSERT_EQ(list.Create(m_root.Key().Get(), L"g\\OobeExclusionList", KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(list.WriteDword(L"TxExcluded", 1), DWORD{0});
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
        m_log.Clear();
    }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    void SetRequired(DWORD required)
    {
        ASSERT_EQ(m_root.Key().WriteDword(L"IsOobeCheckRequired", required), DWORD{0});
    }
    DWORD Required()
    {
        DWORD required = 99;
        EXPECT_EQ(m_root.Key().ReadDword(L"IsOobeCheckRequired", required), DWORD{0});
        return required;
    }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    CLogCapture m_log;
    CImportPatch m_patch{"CoGetClassObject", &FakeCoGetClassObject};
    CFirstRunGate m_gate;
};

TEST_F(FirstRunGateTest, OnlyAStateThatWasReadHoldsBackAndOnlyServicesThatAreNotExcluded)
{
    ASSERT_TRUE(m_patch.IsActive());
    constexpr wchar_t kDisabled[] = L"Services are disabled due to OOBE state";
    constexpr wchar_t kNoObject[] = L"Failed to get OOBE config object (0x80040154)";
    const struct
    {
        const wchar_t* service;
        Answer answer;
        bool runs;
        DWORD level;
        const wchar_t* line;
    } rows[] = {
        {L"TxOther", {65534}, false, LogNormal, kDisabled},
        {L"TxOther", {0, 0, E_FAIL}, false, LogNormal, kDisabled}, // The HRESULT alone decides nothing.
        {L"TXEXCLUDED", {65534}, true, LogWarning, L"The service is in OOBE exclusion list 'TXEXCLUDED'"},
        {L"TxOther", {3, 1, S_FALSE}, true, LogError, L"GetServiceEnabledState failed (0x00000001)"},
        {L"TxOther", {65535, 1}, true, LogError, L"GetServiceEnabledState failed (0x00000000)"},
        {L"TxOther", {.throws = true}, true, LogError, L"GetServiceEnabledState failed (0x800710DD)"},
        {L"TxOther", {.created = REGDB_E_CLASSNOTREG}, true, LogNormal, kNoObject},
    };
    EXPECT_TRUE(m_gate.shouldExecuteService(L"txoobesv2"));
    EXPECT_TRUE(g_asked.empty());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.line));
        g_answer = row.answer;
        g_queries = 0;
        m_log.Clear();

        EXPECT_EQ(m_gate.shouldExecuteService(row.service), row.runs);
        EXPECT_TRUE(m_log.Has(row.level, row.line));
        EXPECT_EQ(g_queries, SUCCEEDED(g_answer.created)) << "read afresh, the list is asked last";
        EXPECT_EQ(g_references, 0U);
        EXPECT_EQ(Required(), 1U);
    }

    g_answer = {65534};
    ASSERT_EQ(m_root.Key().WriteString(L"IsOobeCheckRequired", L"0"), DWORD{0});
    EXPECT_FALSE(m_gate.shouldExecuteService(L"TxOther")) << "of another type";
    ASSERT_EQ(m_root.Key().DeleteValue(L"IsOobeCheckRequired"), DWORD{0});
    EXPECT_FALSE(m_gate.shouldExecuteService(L"TxOther")) << "missing";
    EXPECT_EQ(m_log.Count(LogError, L"Cant read registry key IsOobeCheckRequired"), 2U);

    g_answer = {};
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
    EXPECT_TRUE(m_log.Has(LogNormal, L"OOBE service has enabled all services, disabling OOBE check"));
    EXPECT_EQ(Required(), 0U) << "off for good, in the registry";
    g_answer.state = 0;
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther")) << "and in memory";
}

TEST_F(FirstRunGateTest, AsksForBothInterfacesAndNotAgainOnceNoCheckIsRequired)
{
    g_answer.created = REGDB_E_CLASSNOTREG;
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
    EXPECT_EQ(g_asked, (std::vector<IID>{IID_ITxSvcClassObject, Basalt::IID_ITxSvcClassObjectOld}));

    SetRequired(0);
    g_asked.clear();
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
    EXPECT_TRUE(m_log.Has(LogNormal, L"Oobe completed, disabling OOBE check"));
    SetRequired(1);
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
    EXPECT_TRUE(g_asked.empty());
}

} // namespace
