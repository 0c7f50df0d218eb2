#include "control/TrustedCreation.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/ClassObject.h"
#include "base/SystemLibrary.h"
#include "control/UpdateManager.h"
#include "doubles/Record.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"

using Basalt::kCallFailed;

namespace
{

constexpr std::size_t kSlots = 4;
void* const kWild = reinterpret_cast<void*>(0x7E57000000);

void* g_classObject;
std::vector<IID> g_asked;
IID g_known;

HRESULT WINAPI FakeCoGetClassObject(REFCLSID, DWORD context, COSERVERINFO*, REFIID iid, void** object)
{
    EXPECT_EQ(context, DWORD{CLSCTX_LOCAL_SERVER});
    g_asked.push_back(iid);
    if (iid != g_known)
    {
        return g_asked.size() == 1 ? REGDB_E_CLASSNOTREG : E_NOINTERFACE;
    }
    *object = g_classObject;
    return S_OK;
}

class TrustedCreationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_asked.clear();
        g_known = IID_ITxSvcClassObject;
        PrepareDouble();
        Load(L"tarvex");
    }

    /// Takes the class object of a test double, and a copy of its table to be damaged.
    void Load(const wchar_t* variant)
    {
        m_module = Basalt::CModule(::LoadLibraryW(SignedDouble(variant, L"UpdateManager.dll").c_str()));
        using Entry = HRESULT WINAPI(REFCLSID, REFIID, void**);
        auto* const entry = Basalt::FindExport<Entry>(m_module.Get(), "DllGetClassObject");
        ASSERT_EQ(entry(CLSID_TxUpdateClient, IID_ITxSvcClassObject, &g_classObject), S_OK);
        std::copy_n(*static_cast<void***>(g_classObject), kSlots, m_table);
    }

    HRESULT Create(bool isTrustRequired = true)
    {
        const auto create = [this](auto* function, auto... more) {
            return function(
                CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_ITxUpdateClientRot, &m_out, more...);
        };
        m_out = kWild;
        const HRESULT result = isTrustRequired ? create(&CreateTrustedObject, CreationTrust::Required)
                                               : create(&Basalt::CreateForeignObject);
        EXPECT_EQ(m_out != nullptr, SUCCEEDED(result));
        return result;
    }

    const CImportPatch m_patch{"CoGetClassObject", &FakeCoGetClassObject};
    Basalt::CModule m_module;
    void* m_table[kSlots] = {};
    void* m_out = nullptr;
};

TEST_F(TrustedCreationTest, OnlyAClassObjectOfATrustedModuleMayCreate)
{
    const struct
    {
        const wchar_t* variant;
        const wchar_t* mode;
        const wchar_t* calls;
        HRESULT result;
        bool isTrustRequired = true;
    } rows[] = {
        {L"tarvex", L"", L"create;release;", S_OK},
        {L"tarvex", L"refuse", L"create;release;", CLASS_E_NOAGGREGATION},
        {L"tarvex", L"null", L"create;release;", kCallFailed},
        {L"foreign", L"", L"release;", E_ACCESSDENIED},
        {L"unsigned", L"", L"release;", E_ACCESSDENIED},
        {L"unsigned", L"", L"create;release;", S_OK, false},
    };
    for (const auto& row : rows)
    {
        Load(row.variant);
        PrepareDouble(row.mode);
        EXPECT_EQ(Create(row.isTrustRequired), row.result);
        EXPECT_EQ(RecordedCalls(), row.calls);
    }
    EXPECT_EQ(CreateTrustedObject(CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_NULL, nullptr), E_POINTER);
    EXPECT_EQ(Basalt::CreateForeignObject(CLSID_NULL, CLSCTX_LOCAL_SERVER, IID_NULL, nullptr), E_POINTER);
}

TEST_F(TrustedCreationTest, TheOlderInterfaceIsTriedWhenTheFirstFails)
{
    g_known = IID_NULL;
    EXPECT_EQ(Create(), E_NOINTERFACE) << "the second failure, not the first";
    EXPECT_EQ(g_asked, (std::vector{IID_ITxSvcClassObject, Basalt::IID_ITxSvcClassObjectOld}));
}

TEST_F(TrustedCreationTest, DamagedClassObjectsGiveAStatus)
{
    void* nullTable = nullptr;
    void* wildTable = kWild;
    void* const data = static_cast<void*>(&nullTable);
    void* dataTable[kSlots] = {data, data, data, data};
    void* inData = static_cast<void*>(dataTable);
    const struct
    {
        const char* name;
        void* object;
        HRESULT trusted;
        HRESULT plain;
    } rows[] = {
        {"no object", nullptr, E_NOINTERFACE, E_NOINTERFACE},
        {"unreadable object", kWild, E_ACCESSDENIED, kCallFailed},
        {"no table", data, E_ACCESSDENIED, kCallFailed},
        {"unreadable table", static_cast<void*>(&wildTable), E_ACCESSDENIED, kCallFailed},
        {"methods in data", static_cast<void*>(&inData), E_ACCESSDENIED, kCallFailed},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_classObject = row.object;
        EXPECT_EQ(Create(), row.trusted);
        EXPECT_EQ(Create(false), row.plain);
    }
}

TEST_F(TrustedCreationTest, OneBadMethodGivesAStatus)
{
    const struct
    {
        std::size_t slot;
        HRESULT result;
        const wchar_t* calls;
    } rows[] = {{0, E_ACCESSDENIED, L"release;"}, {2, S_OK, L"create;"}, {3, kCallFailed, L"release;"}};
    for (const auto& row : rows)
    {
        PrepareDouble();
        Load(L"tarvex");
        m_table[row.slot] = kWild;
        void** object = m_table;
        g_classObject = static_cast<void*>(&object);
        EXPECT_EQ(Create(), row.result);
        EXPECT_EQ(RecordedCalls(), row.calls);
    }
}

} // namespace
