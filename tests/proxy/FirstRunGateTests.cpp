#include "proxy/FirstRunGate.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "TxSvcSubsystem.h"
#include "base/ClassObject.h"
#include "config/TxSvcHostConfig.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

/// The first-run service's object and its class object in one; what it says is set by the test.
class CFakeOobe final : public IOobeConfiguration
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }
    HRESULT STDMETHODCALLTYPE GetServiceEnabledState(USHORT* state, DWORD* error) override
    {
        ++queries;
        if (throws)
        {
            throw 5;
        }
        EXPECT_EQ(*state, 65535);
        EXPECT_EQ(*error, 0U);
        *state = newState;
        *error = newError;
        return result;
    }

    ULONG references = 0;
    int queries = 0;
    bool throws = false;
    USHORT newState = 65535;
    DWORD newError = 0;
    HRESULT result = S_OK;
};
CFakeOobe g_oobe;
HRESULT g_created = S_OK;
std::vector<IID> g_asked;

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
    *object = FAILED(g_created) ? nullptr : &g_classObject;
    return g_created;
}

class FirstRunGateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_oobe = {};
        g_created = S_OK;
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

    CTestKey m_root{HKEY_LOCAL_MACHINE, CTxSvcHostConfig::kRootKey};
    CLogCapture m_log;
    CImportPatch m_patch{"CoGetClassObject", &FakeCoGetClassObject};
    CFirstRunGate m_gate;
};

TEST_F(FirstRunGateTest, HoldsBackEveryServiceButTheFirstRunAndTheExcludedOnesWhileSetUpIsNotDone)
{
    ASSERT_TRUE(m_patch.IsActive());
    g_oobe.newState = 65534;
    const struct
    {
        const wchar_t* service;
        bool runs;
        int queries;
    } rows[] = {
        {L"TxOobeSv2", true, 0},
        {L"txoobesv2", true, 0},
        {L"TxOther", false, 1},
        {L"TXEXCLUDED", true, 1}, // The list is asked last.
        {L"TxOther", false, 1},   // The state is read afresh.
        {L"", false, 1},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.service));
        g_oobe.queries = 0;

        EXPECT_EQ(m_gate.shouldExecuteService(row.service), row.runs);
        EXPECT_EQ(g_oobe.queries, row.queries);
        EXPECT_EQ(g_oobe.references, 0U);
    }
    EXPECT_EQ(m_log.Count(LogNormal, L"Services are disabled due to OOBE state"), 4U);
    EXPECT_TRUE(m_log.Has(LogWarning, L"The service is in OOBE exclusion list 'TXEXCLUDED'"));
    EXPECT_EQ(Required(), 1U);

    g_oobe.newState = 65535;
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
    EXPECT_EQ(Required(), 0U) << "off for good, in the registry";
    g_oobe.newState = 0;
    EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther")) << "and in memory";
}

TEST_F(FirstRunGateTest, AStateThatCannotBeReadLetsServicesRunAndLeavesTheCheckPending)
{
    const struct
    {
        const char* name;
        void (*arrange)();
        DWORD level;
        const wchar_t* line;
    } rows[] = {
        {"no object",
         [] { g_created = REGDB_E_CLASSNOTREG; },
         LogNormal,
         L"Failed to get OOBE config object (0x80040154)"},
        {"an error beside a state",
         [] {
             g_oobe.newState = 3;
             g_oobe.newError = 1;
             g_oobe.result = S_FALSE;
         },
         LogError,
         L"GetServiceEnabledState failed (0x00000001)"},
        {"an exception",
         [] { g_oobe.throws = true; },
         LogError,
         L"GetServiceEnabledState failed (0x800710DD)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_oobe = {};
        g_created = S_OK;
        row.arrange();
        m_log.Clear();

        EXPECT_TRUE(m_gate.shouldExecuteService(L"TxOther"));
        EXPECT_TRUE(m_log.Has(row.level, row.line));
        EXPECT_EQ(Required(), 1U);
    }
    g_oobe = {};
    g_created = S_OK;
    g_oobe.newState = 0;
    g_oobe.result = E_FAIL; // The HRESULT alone decides nothing.
    EXPECT_FALSE(m_gate.shouldExecuteService(L"TxOther"));
}

TEST_F(FirstRunGateTest, AsksForBothInterfacesAndNotAgainOnceNoCheckIsRequired)
{
    g_created = REGDB_E_CLASSNOTREG;
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
