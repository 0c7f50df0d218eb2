#include "control/UpdateManager.h"

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "base/ClassObject.h"
#include "base/SystemLibrary.h"
#include "base/Text.h"
#include "control/InstallingUpdate.h"
#include "control/TrustedCreation.h"
#include "control/TxUpdateMgr_Helper.h"
#include "doubles/Record.h"
#include "logging/Log.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/Narrow.h"
#include "support/TestKey.h"

using namespace ETWLogging;
using Basalt::kCallFailed;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";
constexpr wchar_t kEvent[] = L"Global\\{834C46D9-6762-4FF9-8279-2C04C8B1162C}default";

struct UpdateManagerTest : ::testing::Test
{
    /// What was logged since the last call, each with its level.
    std::wstring Log()
    {
        std::wstring text;
        for (const LogLine& line : m_log.Lines())
        {
            text += std::to_wstring(line.level) + L" " + line.message + L";";
        }
        m_log.Clear();
        return text;
    }

    Basalt::CHandle m_event; ///< That says that the instance "default" works on an update.
    CTxUpdateMgr_Helper m_helper;
    CLogCapture m_log;
};

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
        EXPECT_EQ((*slot++)(&m_helper, nullptr, nullptr), row.result);
        const LogLine last = m_log.Lines().back();
        EXPECT_TRUE(last.level == LogError && last.message == row.error) << last.level;
        EXPECT_EQ(
            last.source + L" " + last.function,
            std::wstring(L"TxUpdateMgr_Helper CTxUpdateMgr_Helper::") + row.name);
    }
}

TEST_F(UpdateManagerTest, TheEventOfTheInstanceSaysWhetherItRunsAndTakesTheReminder)
{
    BOOL running = 2;
    DWORD phase = 77;
    EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);
    EXPECT_TRUE(running == 0 && phase == 77);

    m_event.Reset(::CreateEventW(nullptr, TRUE, FALSE, kEvent));
    EXPECT_EQ(m_helper.IsUpdateRunning(&running), S_OK);
    EXPECT_EQ(running, 1);
    EXPECT_EQ(m_helper.RemindRestart(), S_OK);
    EXPECT_EQ(::WaitForSingleObject(m_event.Get(), 0), DWORD{WAIT_OBJECT_0});
    const CImportPatch patch(
        "CoInitializeEx", +[](void*, DWORD model) -> HRESULT {
            return model == COINIT_APARTMENTTHREADED ? RPC_E_CHANGED_MODE : S_OK;
        });
    EXPECT_EQ(IsInstallingUpdate(), 0U);
    EXPECT_TRUE(
        Log().ends_with(L"1 An update is running.;3 Reduce restart: IsInstallingUpdate return value is 0;"))
        << "the client is not missed";
}

TEST_F(UpdateManagerTest, WrongTypesAndSizesInTheRegistryAreReportedAndReadAsNothing)
{
    m_event.Reset(::CreateEventW(nullptr, TRUE, FALSE, kEvent));
    const std::wstring noPhase = L"2 Failed to read update phase from the registry - error ";
    BOOL isRunning = 2;
    DWORD noKeysPhase = 77;
    EXPECT_EQ(m_helper.IsUpdateRunning2(&isRunning, &noKeysPhase), S_OK);
    EXPECT_TRUE(noKeysPhase == 0 && Log().ends_with(noPhase + L"2;")) << "there is no key";

    CTestKey phases(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\UPDMGR\\Update\\pkg_default");
    CTestKey restarts(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\KSC");
    const std::wstring unread = L"2 Failed to read IsRestartPending value from registry - error ";
    const std::wstring begin = L"1 Checking if restart is pending...;";
    const std::wstring end = L"1 No restart is pending;";
    const struct
    {
        DWORD type; ///< REG_NONE: there is no value.
        ULONGLONG data;
        DWORD size;
        DWORD phase;
        BOOL pending;
        std::wstring noPhase;
        std::wstring notPending;
    } rows[] = {
        {REG_NONE, 0, 0, 0, 0, noPhase + L"2;", unread + L"2;"},
        {REG_DWORD, 1, 4, 1, 1, L"", L""},
        {REG_DWORD, 2, 4, 2, 0, L"", L""},
        {REG_SZ, L'1', 4, 0, 0, noPhase + L"0;", L"2 Invalid value type;"},
        {REG_QWORD, 1, 8, 0, 0, noPhase + L"234;", unread + L"234;"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.type);
        const auto store = [&row](CTestKey& key, const wchar_t* name) {
            return row.type == REG_NONE ? 0 : key.Key().WriteValue(name, row.type, &row.data, row.size);
        };
        ASSERT_TRUE(store(phases, L"phase") == 0 && store(restarts, L"IsRestartPending") == 0);
        BOOL running = 2;
        DWORD phase = 77;
        BOOL pending = 2;

        EXPECT_EQ(m_helper.IsUpdateRunning2(&running, &phase), S_OK);
        EXPECT_TRUE(running == 1 && phase == row.phase) << phase;
        EXPECT_EQ(
            Log(),
            L"1 Checking if an update is currently running....;1 An update is running.;" + row.noPhase);
        EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
        EXPECT_EQ(pending, row.pending);
        EXPECT_EQ(Log(), begin + row.notPending + (row.pending != 0 ? L"1 Restart is pending;" : end));
    }

    BOOL pending = 2;
    CTestKey other(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Volatile\\Default");
    ASSERT_EQ(other.Key().WriteDword(L"IsRestartPending", 1), 0U);
    ASSERT_TRUE(m_helper.SetInstance(L"Default")); // Not "default": the other key.
    EXPECT_EQ(m_helper.IsRestartPending(&pending), S_OK);
    EXPECT_EQ(pending, 1);
}

/// The agent for real: registered, and loaded by COM.
TEST_F(UpdateManagerTest, OnlyATrustedAgentIsAskedToCancel)
{
    ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    CTestKey server(
        HKEY_LOCAL_MACHINE,
        L"SOFTWARE\\Classes\\CLSID\\{DA32C9C5-1147-402A-A127-E0E169E9E9B4}\\InprocServer32");
    ASSERT_EQ(server.Key().WriteString(L"ThreadingModel", L"Both"), 0U);
    ASSERT_TRUE(m_helper.SetInstance(L"other"));
    const wchar_t* const asked = L"create;release;cancel other;release;";
    const struct
    {
        const wchar_t* variant;
        const wchar_t* mode;
        HRESULT result;
        bool isMade; ///< The agent, so that it can be asked.
        const wchar_t* calls;
    } rows[] = {
        {L"unsigned", L"", E_ACCESSDENIED, false, L"release;"},
        {L"tarvex", L"refuse", CLASS_E_NOAGGREGATION, false, L"create;release;"},
        {L"tarvex", L"null", kCallFailed, false, L"create;release;"},
        {L"tarvex", L"fail", E_ABORT, true, asked},
        {L"tarvex", L"throw", kCallFailed, true, asked},
        {L"tarvex", L"nothing", S_FALSE, true, asked},
        {L"tarvex", L"old", S_OK, true, asked},
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
        const std::wstring code = Basalt::FormatText(L" hr = 0x%08x;", row.result);
        EXPECT_EQ(
            Log(),
            L"3 Cancelling updates...;" +
                (row.isMade ? L"" : L"4 Failed to create update agent object." + code) +
                (row.result == S_OK ? L"3 Successfully send cancel request;"
                                    : L"4 Failed to send cancel request." + code));
    }
    const CImportPatch patch(
        "LoadLibraryExW", +[](const wchar_t* name, HANDLE file, DWORD flags) -> HMODULE {
            auto* const load = RealFunction<decltype(::LoadLibraryExW)>("LoadLibraryExW");
            return name == std::wstring(L"oleaut32.dll") ? nullptr : load(name, file, flags);
        });
    PrepareDouble();
    EXPECT_THROW(m_helper.CancelUpdate(), std::bad_alloc);
    EXPECT_EQ(RecordedCalls(), L"create;release;release;");
    ::CoUninitialize();
}

void* g_classObject;
std::vector<IID> g_asked;

TEST(TrustedCreation, DamagedClassObjectsGiveAStatus)
{
    const CImportPatch patch(
        "CoGetClassObject", +[](REFCLSID, DWORD, COSERVERINFO*, REFIID iid, void** object) -> HRESULT {
            g_asked.push_back(iid);
            *object = g_classObject;
            return g_classObject != nullptr ? S_OK : iid == IID_ITxSvcClassObject ? E_ABORT : E_NOINTERFACE;
        });
    void* out = &g_classObject;
    const auto create = [&out](CreationTrust trust) {
        return CreateTrustedObject(CLSID_NULL, CLSCTX_ALL, IID_ITxUpdateAgent, &out, trust);
    };
    EXPECT_EQ(create(CreationTrust::Required), E_NOINTERFACE) << "the second failure, not the first";
    EXPECT_EQ(g_asked, (std::vector{IID_ITxSvcClassObject, Basalt::IID_ITxSvcClassObjectOld}));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(create(CreationTrust::NotAsked), CO_E_NOTINITIALIZED);

    const Basalt::CModule module(::LoadLibraryW(SignedDouble(L"tarvex", kModule).c_str()));
    using Entry = HRESULT WINAPI(REFCLSID, REFIID, void**);
    auto* const entry = Basalt::FindExport<Entry>(module.Get(), "DllGetClassObject");
    PrepareDouble();
    ASSERT_EQ(entry(CLSID_TxUpdateAgent, IID_ITxSvcClassObject, &g_classObject), S_OK);
    void* methods[4];
    std::copy_n(*static_cast<void***>(g_classObject), 4, methods);
    void* table = static_cast<void*>(methods);
    g_classObject = static_cast<void*>(&table);
    EXPECT_EQ(create(CreationTrust::Required), S_OK);
    // One thing more is broken each time.
    void* const wild = reinterpret_cast<void*>(0x7E57000000);
    const std::tuple<const char*, void**, void*, HRESULT> damages[] = {
        {"CreateObject", &methods[3], static_cast<void*>(&table), kCallFailed},
        {"Release", &methods[2], wild, kCallFailed},
        {"QueryInterface", &methods[0], static_cast<void*>(&table), E_ACCESSDENIED},
        {"the table", &table, wild, E_ACCESSDENIED},
        {"the object", &g_classObject, wild, E_ACCESSDENIED},
    };
    for (const auto& [name, place, value, expected] : damages)
    {
        *place = value;
        EXPECT_EQ(create(CreationTrust::Required), expected) << name;
    }
    EXPECT_EQ(RecordedCalls(), L"create;release;release;");
}

} // namespace
