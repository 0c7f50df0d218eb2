#include "control/UpdateManager.h"

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <gtest/gtest.h>
#include <new>
#include <string>

#include "base/ClassObject.h"
#include "base/SystemLibrary.h"
#include "control/AnsiRegistryReader.h"
#include "control/InstallingUpdate.h"
#include "control/TxUpdateMgr_Helper.h"
#include "doubles/Record.h"
#include "logging/Log.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/Narrow.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";
constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Classes\\CLSID\\{DA32C9C5-1147-402A-A127-E0E169E9E9B4}";

HMODULE g_client; ///< The update client's module, or null while there is none.
int g_initialised;

/// Puts the test double in the place of the local server.
HRESULT WINAPI GetClientClassObject(REFCLSID clsid, DWORD context, COSERVERINFO*, REFIID iid, void** object)
{
    EXPECT_TRUE(clsid == CLSID_TxUpdateClient && context == CLSCTX_LOCAL_SERVER && g_initialised == 1);
    using Entry = HRESULT WINAPI(REFCLSID, REFIID, void**);
    auto* const entry = Basalt::FindExport<Entry>(g_client, "DllGetClassObject");
    return entry == nullptr ? REGDB_E_CLASSNOTREG : entry(clsid, iid, object);
}

HRESULT WINAPI FailToInitialise(void*, DWORD)
{
    return RPC_E_CHANGED_MODE;
}

class UpdateManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { PrepareDouble(); }
    /// The event that says that the instance "default" works on an update.
    void StartUpdate()
    {
        m_event.Reset(
            ::CreateEventW(nullptr, TRUE, FALSE, L"Global\\{834C46D9-6762-4FF9-8279-2C04C8B1162C}default"));
    }

    Basalt::CHandle m_event;
    CTxUpdateMgr_Helper m_helper;
    CLogCapture m_log;
};

TEST_F(UpdateManagerTest, WithoutAnEventNoUpdateRunsAndComIsLeftAlone)
{
    const CImportPatch patch(
        "CoInitializeEx", +[](void*, DWORD) -> HRESULT {
            ADD_FAILURE();
            return E_FAIL;
        });
    ASSERT_TRUE(patch.IsActive());

    EXPECT_EQ(IsInstallingUpdate(), 0U);

    const std::vector<std::wstring> expected = {
        L"Checking if an update is currently installing....",
        L"Enter IsInstallingUpdate",
        L"Checking if an update is currently running....",
        L"An update is NOT running.",
        L"update manager is not running",
        L"Reduce restart: IsInstallingUpdate return value is 0"};
    EXPECT_EQ(m_log.Messages(), expected);
    const LogLine last = m_log.Lines().back();
    EXPECT_EQ(last.level, DWORD{LogInformation});
    EXPECT_EQ(last.source + L" " + last.function, L"TxSvcHostMain IsInstallingUpdate");
    EXPECT_EQ(m_log.Lines()[3].source, L"TxUpdateMgr_Helper");
}

TEST_F(UpdateManagerTest, OnlyATrustedAndLivingClientsYesCounts)
{
    StartUpdate();
    const CImportPatch getClassObject("CoGetClassObject", &GetClientClassObject);
    const CImportPatch initialise(
        "CoInitializeEx", +[](void*, DWORD model) -> HRESULT {
            EXPECT_EQ(model, DWORD{COINIT_APARTMENTTHREADED});
            ++g_initialised;
            return S_FALSE;
        });
    const CImportPatch uninitialise(
        "CoUninitialize", +[] {
            --g_initialised;
            EXPECT_NE(RecordedCalls(), L"create;release;ask;") << "the client is released first";
        });
    const std::wstring notCreated = L"Reduce restart: Failed to create ITxUpdateClientRot object,hr = 0x";
    const std::wstring notAsked = L"Reduce restart: Failed to ask ITxUpdateClientRot object,hr = 0x";
    const struct
    {
        const wchar_t* variant;
        const wchar_t* mode;
        DWORD installing;
        const wchar_t* calls;
        std::wstring error;
    } rows[] = {
        {L"tarvex", L"installing", 7, L"create;release;ask;release;", L""},
        {L"quintor", L"installing old", 7, L"create;release;ask;release;", L""},
        {L"tarvex", L"", 0, L"create;release;ask;release;", L""},
        {L"tarvex", L"installing fail", 0, L"create;release;ask;release;", notAsked + L"80004004"},
        {L"tarvex", L"installing throw", 0, L"create;release;ask;release;", notAsked + L"800710dd"},
        {L"tarvex", L"installing null", 0, L"create;release;", notCreated + L"800710dd"},
        {L"unsigned", L"installing", 0, L"release;", notCreated + L"80070005"},
        {L"changed", L"installing", 0, L"release;", notCreated + L"80070005"},
        {L"missing", L"installing", 0, L"", notCreated + L"80040154"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(std::wstring(row.variant) + L" " + row.mode));
        const Basalt::CModule client(::LoadLibraryW(SignedDouble(row.variant, kModule).c_str()));
        g_client = client.Get();
        PrepareDouble(row.mode);
        m_log.Clear();

        EXPECT_EQ(IsInstallingUpdate(), row.installing);

        EXPECT_EQ(RecordedCalls(), row.calls);
        EXPECT_EQ(g_initialised, 0);
        EXPECT_EQ(m_log.Count(LogError, row.error), row.error.empty() ? 0U : 1U);
        EXPECT_EQ(m_log.CountContaining(LogError, L""), row.error.empty() ? 0U : 1U);
        EXPECT_EQ(m_log.Messages().back().back(), L'0' + row.installing);
    }
    const CImportPatch failing("CoInitializeEx", &FailToInitialise);
    EXPECT_EQ(IsInstallingUpdate(), 0U);
    EXPECT_EQ(g_initialised, 0);
}

TEST_F(UpdateManagerTest, OperationsKeepTheirSlotsAndRefuseNull)
{
    using Operation = HRESULT(CTxUpdateMgr_Helper*, void*, void*);
    const struct
    {
        const wchar_t* name;
        HRESULT result;
        const wchar_t* error;
    } rows[] = {
        {L"CancelUpdate", CO_E_NOTINITIALIZED, L"Failed to create update agent object. hr = 0x800401f0"},
        {L"CancelUpdate2", E_POINTER, L"Invalid parameter!"},
        {L"IsUpdateRunning", E_POINTER, L"Invalid parameter!"},
        {L"IsUpdateRunning2", E_POINTER, L"The pbRunning or pbRemindPending or pdwPhase is invalid!"},
        {L"IsRestartPending", E_POINTER, L"The pbPending parameter is invalid!"},
        {L"RemindRestart", E_FAIL, L"Failed to open remind restart event - error 2"},
    };
    auto* const* slot = *reinterpret_cast<Operation***>(&m_helper);
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.name));
        m_log.Clear();
        EXPECT_EQ((*slot++)(&m_helper, nullptr, nullptr), row.result);
        EXPECT_TRUE(m_log.Has(LogError, row.error));
        EXPECT_EQ(m_log.Lines().back().function, std::wstring(L"CTxUpdateMgr_Helper::") + row.name);
    }
}

TEST_F(UpdateManagerTest, TheEventOfTheInstanceSaysWhetherItRunsAndTakesTheReminder)
{
    BOOL running = 2;
    DWORD phase = 77;
    EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);
    EXPECT_EQ(running, 0);
    EXPECT_EQ(phase, 77U);

    StartUpdate();
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 1);
    EXPECT_TRUE(m_log.Has(LogNormal, L"An update is running."));
    EXPECT_EQ(::WaitForSingleObject(m_event.Get(), 0), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(m_helper.RemindRestart(), S_OK);
    EXPECT_EQ(::WaitForSingleObject(m_event.Get(), 0), DWORD{WAIT_OBJECT_0});

    EXPECT_FALSE(m_helper.SetInstance(std::wstring(260, L'x').c_str()));
    ASSERT_TRUE(
        m_helper.SetInstance(std::wstring(259, L'x').c_str())); // The event's name is cut, not overrun.
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 0);
}

TEST_F(UpdateManagerTest, WrongTypesAndSizesInTheRegistryAreReportedAndReadAsNothing)
{
    StartUpdate();
    CTestKey phaseKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\UPDMGR\\Update\\pkg_default");
    CTestKey pendingKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\KSC");
    const std::wstring noPhase = L"Failed to read update phase from the registry - error ";
    const std::wstring noPending = L"Failed to read IsRestartPending value from registry - error ";
    const ULONGLONG one = 1;
    const ULONGLONG two = 2;
    const struct
    {
        const char* name;
        DWORD type;
        const void* data;
        DWORD size;
        DWORD phase;
        BOOL pending;
        std::wstring phaseWarning;
        std::wstring pendingWarning;
    } rows[] = {
        {"missing", REG_NONE, nullptr, 0, 0, 0, noPhase + L"2", noPending + L"2"},
        {"one", REG_DWORD, &one, 4, 1, 1, L"", L""},
        {"two", REG_DWORD, &two, 4, 2, 0, L"", L""},
        {"short", REG_DWORD, &two, 1, 2, 0, L"", L""},
        {"text", REG_SZ, L"1", 4, 0, 0, noPhase + L"0", L"Invalid value type"},
        {"binary", REG_BINARY, &one, 4, 0, 0, noPhase + L"0", L"Invalid value type"},
        {"wide", REG_QWORD, &one, 8, 0, 0, noPhase + L"234", noPending + L"234"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        if (row.type != REG_NONE)
        {
            ASSERT_EQ(phaseKey.Key().WriteValue(L"phase", row.type, row.data, row.size), 0U);
            ASSERT_EQ(pendingKey.Key().WriteValue(L"IsRestartPending", row.type, row.data, row.size), 0U);
        }
        m_log.Clear();
        BOOL running = 2;
        DWORD phase = 77;
        BOOL pending = 2;

        EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);
        EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);

        EXPECT_EQ(phase, row.phase);
        EXPECT_EQ(pending, row.pending);
        EXPECT_EQ(m_log.Count(LogWarning, row.phaseWarning), row.phaseWarning.empty() ? 0U : 1U);
        EXPECT_EQ(m_log.Count(LogWarning, row.pendingWarning), row.pendingWarning.empty() ? 0U : 1U);
        EXPECT_TRUE(
            m_log.Has(LogNormal, row.pending != 0 ? L"Restart is pending" : L"No restart is pending"));
    }

    CTestKey otherKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\Default");
    ASSERT_EQ(otherKey.Key().WriteDword(L"IsRestartPending", 1), 0U);
    ASSERT_TRUE(m_helper.SetInstance(L"Default")); // Not "default": the other key.
    BOOL pending = 2;
    EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
    EXPECT_EQ(pending, 1);

    const CImportPatch patch(
        "RegQueryValueExA", +[](HKEY, const char*, DWORD*, DWORD*, BYTE*, DWORD*) -> LSTATUS {
            return ERROR_INSUFFICIENT_BUFFER;
        });
    m_log.Clear();
    EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
    EXPECT_TRUE(m_log.Has(LogWarning, noPending + L"234"));
}

/// The agent for real: registered, and loaded by COM.
TEST_F(UpdateManagerTest, OnlyATrustedAgentIsAskedToCancel)
{
    ASSERT_GE(::CoInitializeEx(nullptr, COINIT_MULTITHREADED), 0);
    CTestKey key(HKEY_LOCAL_MACHINE, kAgentKey);
    CTestKey server(HKEY_LOCAL_MACHINE, std::wstring(kAgentKey) + L"\\InprocServer32");
    ASSERT_EQ(server.Key().WriteString(L"ThreadingModel", L"Both"), 0U);
    ASSERT_TRUE(m_helper.SetInstance(L"other"));
    const wchar_t* const asked = L"create;release;cancel other;release;";
    const struct
    {
        const wchar_t* variant;
        const wchar_t* mode;
        HRESULT result;
        const wchar_t* calls;
    } rows[] = {
        {L"unsigned", L"", E_ACCESSDENIED, L"release;"},
        {L"tarvex", L"fail", E_ABORT, asked},
        {L"tarvex", L"throw", Basalt::kCallFailed, asked},
        {L"tarvex", L"old", S_OK, asked},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(std::wstring(row.variant) + L" " + row.mode));
        ASSERT_EQ(server.Key().WriteString(nullptr, SignedDouble(row.variant, kModule)), 0U);
        PrepareDouble(row.mode);
        m_log.Clear();
        BOOL cancelled = 2;

        EXPECT_EQ(m_helper.CancelUpdate2(&cancelled), row.result);

        const bool isSent = row.result == S_OK;
        EXPECT_EQ(cancelled, isSent ? 1 : 0);
        EXPECT_EQ(RecordedCalls(), row.calls);
        EXPECT_TRUE(m_log.Has(LogInformation, L"Cancelling updates..."));
        EXPECT_EQ(m_log.Has(LogInformation, L"Successfully send cancel request"), isSent);
        EXPECT_EQ(
            m_log.CountContaining(LogError, L"Failed to send cancel request. hr = 0x8"), isSent ? 0U : 1U);
    }
    PrepareDouble();
    {
        const CImportPatch patch("SysAllocString", +[](const wchar_t*) -> BSTR { return nullptr; });
        EXPECT_THROW(m_helper.CancelUpdate(), std::bad_alloc);
    }
    EXPECT_EQ(RecordedCalls(), L"create;release;release;");
    ::CoUninitialize();
}

TEST_F(UpdateManagerTest, TheHelperLeavesItsLoggingIdentityBehind)
{
    SetLoggingIdentity({});
    const CTxUpdateMgr_Helper helper;
    const LoggingIdentity identity = GetLoggingIdentity();
    EXPECT_STREQ(identity.group, L"UPDMGR");
    EXPECT_TRUE(identity.host == nullptr && identity.context == nullptr);
    EXPECT_EQ(identity.context2 + identity.mechanismOverride, 0U);
}

} // namespace
