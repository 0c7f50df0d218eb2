#include "control/TrustedCreation.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "base/ClassObject.h"
#include "base/SystemLibrary.h"
#include "control/UpdateManager.h"
#include "doubles/Record.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"

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

/// A class object whose table is a copy of a test double's, to be damaged.
class TrustedCreationTest : public ::testing::Test
{
protected:
    void Load(const wchar_t* variant)
    {
        m_module = Basalt::CModule(::LoadLibraryW(SignedDouble(variant, L"UpdateManager.dll").c_str()));
        using Entry = HRESULT WINAPI(REFCLSID, REFIID, void**);
        auto* const entry = Basalt::FindExport<Entry>(m_module.Get(), "DllGetClassObject");
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry(CLSID_TxUpdateClient, IID_ITxSvcClassObject, &g_classObject), S_OK);
        std::copy_n(*static_cast<void***>(g_classObject), kSlots, m_table);
    }

    /// The class object with the copied table.
    void UseCopy() { g_classObject = &m_object; }

    void SetUp() override
    {
        ASSERT_TRUE(m_patch.IsActive());
        g_asked.clear();
        g_known = IID_ITxSvcClassObject;
        PrepareDouble();
    }

    HRESULT Create(CreationTrust trust = CreationTrust::Required)
    {
        m_out = kWild;
        return trust == CreationTrust::Required
                   ? CreateTrustedObject(
                         CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_ITxUpdateClientRot, &m_out)
                   : Basalt::CreateForeignObject(
                         CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_ITxUpdateClientRot, &m_out);
    }

    const CImportPatch m_patch{"CoGetClassObject", &FakeCoGetClassObject};
    Basalt::CModule m_module;
    void* m_table[kSlots] = {};
    void** m_object = m_table;
    void* m_out = nullptr;
};

TEST_F(TrustedCreationTest, OnlyAClassObjectOfATrustedModuleMayCreate)
{
    const struct
    {
        const wchar_t* variant;
        CreationTrust trust;
        HRESULT result;
        const wchar_t* calls;
    } rows[] = {
        {L"tarvex", CreationTrust::Required, S_OK, L"create;release;"},
        {L"foreign", CreationTrust::Required, E_ACCESSDENIED, L"release;"},
        {L"unsigned", CreationTrust::Required, E_ACCESSDENIED, L"release;"},
        {L"unsigned", CreationTrust::NotAsked, S_OK, L"create;release;"},
    };
    for (const auto& row : rows)
    {
        PrepareDouble();
        Load(row.variant);

        EXPECT_EQ(Create(row.trust), row.result);

        EXPECT_EQ(RecordedCalls(), row.calls);
        EXPECT_EQ(m_out != nullptr, SUCCEEDED(row.result));
    }
}

TEST_F(TrustedCreationTest, TheOlderInterfaceIsTriedWhenTheFirstFails)
{
    Load(L"tarvex");
    g_known = Basalt::IID_ITxSvcClassObjectOld;
    EXPECT_EQ(Create(), S_OK);
    EXPECT_EQ(g_asked, (std::vector{IID_ITxSvcClassObject, Basalt::IID_ITxSvcClassObjectOld}));

    g_asked.clear();
    g_known = IID_NULL;
    for (const CreationTrust trust : {CreationTrust::Required, CreationTrust::NotAsked})
    {
        g_asked.clear();
        EXPECT_EQ(Create(trust), E_NOINTERFACE); // The second failure, not the first.
        EXPECT_EQ(m_out, nullptr);
    }
}

TEST_F(TrustedCreationTest, ARefusalIsPassedOnAndLeavesNoObject)
{
    Load(L"tarvex");
    const struct
    {
        const wchar_t* mode;
        HRESULT result;
    } rows[] = {{L"refuse", CLASS_E_NOAGGREGATION}, {L"null", Basalt::kForeignCallFailed}};
    for (const auto& row : rows)
    {
        PrepareDouble(row.mode);

        EXPECT_EQ(Create(), row.result);

        EXPECT_EQ(m_out, nullptr);
        EXPECT_EQ(RecordedCalls(), L"create;release;");
    }
    EXPECT_EQ(
        CreateTrustedObject(CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_ITxUpdateClientRot, nullptr),
        E_POINTER);
    EXPECT_EQ(
        Basalt::CreateForeignObject(CLSID_TxUpdateClient, CLSCTX_LOCAL_SERVER, IID_NULL, nullptr), E_POINTER);
}

TEST_F(TrustedCreationTest, DamagedClassObjectsGiveAStatus)
{
    Load(L"tarvex");
    void* nullTable = nullptr;
    void* wildTable = kWild;
    int data = 0;
    void* dataTable[kSlots];
    std::fill(std::begin(dataTable), std::end(dataTable), &data);
    void* inData = dataTable;
    const struct
    {
        const char* name;
        void* object;
        HRESULT trusted;
        HRESULT plain;
    } rows[] = {
        {"no object", nullptr, E_NOINTERFACE, E_NOINTERFACE},
        {"unreadable object", kWild, E_ACCESSDENIED, Basalt::kForeignCallFailed},
        {"no table", &nullTable, E_ACCESSDENIED, Basalt::kForeignCallFailed},
        {"unreadable table", &wildTable, E_ACCESSDENIED, Basalt::kForeignCallFailed},
        {"methods in data", &inData, E_ACCESSDENIED, Basalt::kForeignCallFailed},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_classObject = row.object;
        EXPECT_EQ(Create(), row.trusted);
        EXPECT_EQ(m_out, nullptr);
        EXPECT_EQ(Create(CreationTrust::NotAsked), row.plain);
        EXPECT_EQ(m_out, nullptr);
    }
}

TEST_F(TrustedCreationTest, OneBadMethodGivesAStatus)
{
    const struct
    {
        std::size_t slot;
        HRESULT result;
        const wchar_t* calls;
    } rows[] = {
        {0, E_ACCESSDENIED, L"release;"},
        {2, S_OK, L"create;"},
        {3, Basalt::kForeignCallFailed, L"release;"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.slot);
        PrepareDouble();
        Load(L"tarvex");
        UseCopy();
        m_table[row.slot] = kWild;

        EXPECT_EQ(Create(), row.result);

        EXPECT_EQ(RecordedCalls(), row.calls);
    }
}

} // namespace
