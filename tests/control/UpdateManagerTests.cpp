#include "control/UpdateManager.h"

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <gtest/gtest.h>
#include <new>
#include <string>

#include "base/ClassObject.h"
#include "base/Owned.h"
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

constexpr wchar_t kEventOfDefault[] = L"Global\\{834C46D9-6762-4FF9-8279-2C04C8B1162C}default";
constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Classes\\CLSID\\{DA32C9C5-1147-402A-A127-E0E169E9E9B4}";
constexpr wchar_t kModule[] = L"UpdateManager.dll";

HMODULE g_client; ///< The update client's module, or null while there is none.
int g_initialised;

/// Puts the test double in the place of the local server.
HRESULT WINAPI GetClientClassObject(REFCLSID clsid, DWORD context, COSERVERINFO*, REFIID iid, void** object)
{
    EXPECT_EQ(clsid, CLSID_TxUpdateClient);
    EXPECT_EQ(context, DWORD{CLSCTX_LOCAL_SERVER});
    EXPECT_EQ(g_initialised, 1);
    using Entry = HRESULT WINAPI(REFCLSID, REFIID, void**);
    auto* const entry = Basalt::FindExport<Entry>(g_client, "DllGetClassObject");
    return entry == nullptr ? REGDB_E_CLASSNOTREG : entry(clsid, iid, object);
}

HRESULT WINAPI CountInitialise(void*, DWORD model)
{
    EXPECT_EQ(model, DWORD{COINIT_APARTMENTTHREADED});
    ++g_initialised;
    return S_FALSE;
}

HRESULT WINAPI FailToInitialise(void*, DWORD)
{
    return RPC_E_CHANGED_MODE;
}

void WINAPI CountUninitialise()
{
    --g_initialised;
    EXPECT_NE(RecordedCalls(), L"create;release;ask;") << "the client is released first";
}

BSTR WINAPI FailToAllocate(const wchar_t*)
{
    return nullptr;
}

LSTATUS WINAPI SayTooSmall(HKEY, const char*, DWORD*, DWORD*, BYTE*, DWORD*)
{
    return ERROR_INSUFFICIENT_BUFFER;
}

Basalt::CHandle CreateUpdateEvent(const wchar_t* name = kEventOfDefault)
{
    return Basalt::CHandle(::CreateEventW(nullptr, TRUE, FALSE, name));
}

class UpdateManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { PrepareDouble(); }

    CTxUpdateMgr_Helper m_helper;
    CLogCapture m_log;
};

TEST_F(UpdateManagerTest, WithoutAnEventNoUpdateRunsAndComIsLeftAlone)
{
    const CImportPatch patch("CoInitializeEx", &FailToInitialise);

    EXPECT_EQ(IsInstallingUpdate(), 0U);

    const std::vector<LogLine> lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0].message, L"Checking if an update is currently installing....");
    EXPECT_EQ(lines[1].message, L"Enter IsInstallingUpdate");
    EXPECT_EQ(lines[2].source, L"TxUpdateMgr_Helper");
    EXPECT_EQ(lines[2].function, L"CTxUpdateMgr_Helper::IsUpdateRunning");
    EXPECT_EQ(lines[4].message, L"update manager is not running");
    EXPECT_EQ(lines[4].level, DWORD{LogNormal});
    EXPECT_EQ(lines[5].source, L"TxSvcHostMain");
    EXPECT_EQ(lines[5].function, L"IsInstallingUpdate");
    EXPECT_EQ(lines[5].level, DWORD{LogInformation});
    EXPECT_EQ(lines[5].message, L"Reduce restart: IsInstallingUpdate return value is 0");
}

TEST_F(UpdateManagerTest, OnlyATrustedAndLivingClientsYesCounts)
{
    const Basalt::CHandle event = CreateUpdateEvent();
    const CImportPatch getClassObject("CoGetClassObject", &GetClientClassObject);
    const CImportPatch initialise("CoInitializeEx", &CountInitialise);
    const CImportPatch uninitialise("CoUninitialize", &CountUninitialise);
    ASSERT_TRUE(event && getClassObject.IsActive() && initialise.IsActive() && uninitialise.IsActive());
    const std::wstring failed = L"Reduce restart: Failed to create ITxUpdateClientRot object,hr = 0x";
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
        {L"tarvex", L"installing fail", 0, L"create;release;ask;release;", L""},
        {L"tarvex", L"installing throw", 0, L"create;release;ask;release;", L""},
        {L"tarvex", L"installing null", 0, L"create;release;", failed + L"800710dd"},
        {L"tarvex", L"installing refuse", 0, L"create;release;", failed + L"80040110"},
        {L"unsigned", L"installing", 0, L"release;", failed + L"80070005"},
        {L"changed", L"installing", 0, L"release;", failed + L"80070005"},
        {L"missing", L"installing", 0, L"", failed + L"80040154"},
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
        EXPECT_TRUE(m_log.Has(
            LogInformation,
            L"Reduce restart: IsInstallingUpdate return value is " + std::to_wstring(row.installing)));
    }
    g_client = nullptr;
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
    auto* const slots = *reinterpret_cast<Operation***>(&m_helper);
    for (std::size_t i = 0; i < std::size(rows); ++i)
    {
        SCOPED_TRACE(Narrow(rows[i].name));
        m_log.Clear();

        EXPECT_EQ(slots[i](&m_helper, nullptr, nullptr), rows[i].result);

        ASSERT_TRUE(m_log.Has(LogError, rows[i].error));
        EXPECT_EQ(m_log.Lines().back().function, std::wstring(L"CTxUpdateMgr_Helper::") + rows[i].name);
    }
}

TEST_F(UpdateManagerTest, TheEventOfTheInstanceSaysWhetherItRunsAndTakesTheReminder)
{
    BOOL running = 2;
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 0);
    EXPECT_TRUE(m_log.Has(LogNormal, L"An update is NOT running."));

    const Basalt::CHandle event = CreateUpdateEvent();
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 1);
    EXPECT_TRUE(m_log.Has(LogNormal, L"An update is running."));
    EXPECT_EQ(::WaitForSingleObject(event.Get(), 0), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(m_helper.RemindRestart(), S_OK);
    EXPECT_EQ(::WaitForSingleObject(event.Get(), 0), DWORD{WAIT_OBJECT_0});

    ASSERT_TRUE(m_helper.SetInstance(L"other"));
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 0);
    EXPECT_FALSE(m_helper.SetInstance(std::wstring(260, L'x').c_str()));
    ASSERT_TRUE(
        m_helper.SetInstance(std::wstring(259, L'x').c_str())); // The event's name is cut, not overrun.
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
}

struct StoredValue
{
    const char* name;
    DWORD type;
    const void* data;
    DWORD size;
    DWORD expected;
    const wchar_t* warning; ///< The only one, or empty.
};
constexpr DWORD kOne = 1;
constexpr DWORD kTwo = 2;
constexpr ULONGLONG kWide = 1;

TEST_F(UpdateManagerTest, ThePhaseIsReadWhileAnUpdateRuns)
{
    BOOL running = 2;
    DWORD phase = 77;
    EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);
    EXPECT_EQ(phase, 77U);

    const Basalt::CHandle event = CreateUpdateEvent();
    CTestKey key(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\UPDMGR\\Update\\pkg_default");
    const StoredValue rows[] = {
        {"missing", REG_NONE, nullptr, 0, 0, L"Failed to read update phase from the registry - error 2"},
        {"good", REG_DWORD, &kTwo, 4, 2, L""},
        {"short", REG_DWORD, &kTwo, 1, 2, L""},
        {"text", REG_SZ, L"2", 4, 0, L"Failed to read update phase from the registry - error 0"},
        {"wide", REG_QWORD, &kWide, 8, 0, L"Failed to read update phase from the registry - error 234"},
    };
    for (const StoredValue& row : rows)
    {
        SCOPED_TRACE(row.name);
        if (row.type != REG_NONE)
        {
            ASSERT_EQ(key.Key().WriteValue(L"phase", row.type, row.data, row.size), 0U);
        }
        m_log.Clear();

        EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);

        EXPECT_EQ(running, 1);
        EXPECT_EQ(phase, row.expected);
        EXPECT_EQ(m_log.Count(LogWarning, row.warning), *row.warning == L'\0' ? 0U : 1U);
    }
}

TEST_F(UpdateManagerTest, OnlyADwordOfOneMeansThatARestartIsPending)
{
    CTestKey key(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\KSC");
    const StoredValue rows[] = {
        {"missing",
         REG_NONE,
         nullptr,
         0,
         0,
         L"Failed to read IsRestartPending value from registry - error 2"},
        {"one", REG_DWORD, &kOne, 4, 1, L""},
        {"two", REG_DWORD, &kTwo, 4, 0, L""},
        {"text", REG_SZ, L"1", 4, 0, L"Invalid value type"},
        {"binary", REG_BINARY, &kOne, 4, 0, L"Invalid value type"},
        {"wide", REG_QWORD, &kWide, 8, 0, L"Failed to read IsRestartPending value from registry - error 234"},
    };
    for (const StoredValue& row : rows)
    {
        SCOPED_TRACE(row.name);
        if (row.type != REG_NONE)
        {
            ASSERT_EQ(key.Key().WriteValue(L"IsRestartPending", row.type, row.data, row.size), 0U);
        }
        m_log.Clear();
        BOOL pending = 2;

        EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);

        EXPECT_EQ(pending, static_cast<BOOL>(row.expected));
        EXPECT_EQ(m_log.Count(LogWarning, row.warning), *row.warning == L'\0' ? 0U : 1U);
        EXPECT_TRUE(m_log.Has(LogNormal, pending != 0 ? L"Restart is pending" : L"No restart is pending"));
    }
}

TEST_F(UpdateManagerTest, InstanceNamesAreCaseSensitive)
{
    CTestKey ofDefault(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\KSC");
    CTestKey ofOther(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\Default");
    ASSERT_EQ(ofOther.Key().WriteDword(L"IsRestartPending", 1), 0U);
    BOOL pending = 2;
    EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
    EXPECT_EQ(pending, 0);

    ASSERT_TRUE(m_helper.SetInstance(L"Default"));
    EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
    EXPECT_EQ(pending, 1);
}

TEST_F(UpdateManagerTest, ABufferThatIsTooSmallIsReportedOneWay)
{
    const CTestKey key(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\Ansi");
    const CImportPatch patch("RegQueryValueExA", &SayTooSmall);
    ASSERT_TRUE(patch.IsActive());
    DWORD type = 0;
    DWORD size = 0;

    EXPECT_EQ(
        ReadAnsiRegistryValue(HKEY_LOCAL_MACHINE, key.Path().c_str(), L"value", type, nullptr, size),
        DWORD{ERROR_MORE_DATA});
}

/// The agent for real: registered, and loaded by COM.
TEST_F(UpdateManagerTest, OnlyATrustedAgentIsAskedToCancel)
{
    ASSERT_GE(::CoInitializeEx(nullptr, COINIT_MULTITHREADED), 0);
    CTestKey key(HKEY_LOCAL_MACHINE, kAgentKey);
    CTestKey server(HKEY_LOCAL_MACHINE, std::wstring(kAgentKey) + L"\\InprocServer32");
    ASSERT_EQ(server.Key().WriteString(L"ThreadingModel", L"Both"), 0U);
    ASSERT_TRUE(m_helper.SetInstance(L"other"));
    const struct
    {
        const wchar_t* variant;
        const wchar_t* mode;
        HRESULT result;
        const wchar_t* calls;
        const wchar_t* error;
    } rows[] = {
        {L"tarvex", L"", S_OK, L"create;release;cancel other;release;", L""},
        {L"tarvex", L"old", S_OK, L"create;release;cancel other;release;", L""},
        {L"tarvex", L"fail", E_ABORT, L"create;release;cancel other;release;", L""},
        {L"tarvex", L"throw", Basalt::kForeignCallFailed, L"create;release;cancel other;release;", L""},
        {L"unsigned",
         L"",
         E_ACCESSDENIED,
         L"release;",
         L"Failed to create update agent object. hr = 0x80070005"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(std::wstring(row.variant) + L" " + row.mode));
        ASSERT_EQ(server.Key().WriteString(nullptr, SignedDouble(row.variant, kModule)), 0U);
        PrepareDouble(row.mode);
        m_log.Clear();
        BOOL cancelled = 2;

        EXPECT_EQ(m_helper.CancelUpdate2(&cancelled), row.result);

        EXPECT_EQ(cancelled, row.result == S_OK ? 1 : 0);
        EXPECT_EQ(RecordedCalls(), row.calls);
        EXPECT_TRUE(m_log.Has(LogInformation, L"Cancelling updates..."));
        EXPECT_EQ(m_log.Count(LogInformation, L"Successfully send cancel request"), cancelled == 1 ? 1U : 0U);
        EXPECT_EQ(
            m_log.CountContaining(LogError, L"Failed to send cancel request. hr = 0x8"),
            cancelled == 1 ? 0U : 1U);
        EXPECT_EQ(m_log.Count(LogError, row.error), *row.error == L'\0' ? 0U : 1U);
    }
    ASSERT_EQ(server.Key().WriteString(nullptr, SignedDouble(L"tarvex", kModule)), 0U);
    PrepareDouble();
    {
        const CImportPatch patch("SysAllocString", &FailToAllocate);
        ASSERT_TRUE(patch.IsActive());
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
    EXPECT_EQ(identity.host, nullptr);
    EXPECT_EQ(identity.context, nullptr);
    EXPECT_EQ(identity.context2, 0U);
    EXPECT_EQ(identity.mechanismOverride, 0U);
}

} // namespace
