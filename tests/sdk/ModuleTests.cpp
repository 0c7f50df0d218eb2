#include <windows.h>

#include <gtest/gtest.h>
#include <new>

#include "TxSubsystemModule.h"
#include "support/ComReference.h"

namespace
{

constexpr CLSID kClsid = {0x5D1FBE3A, 0x0B52, 0x4B8E, {0x8A, 0x11, 0x60, 0x3C, 0x7E, 0x55, 0x10, 0x01}};

class CIdleService : public TxSdk::CSubsystem
{
};

/// Its construction fails as the test says.
template <typename Exception>
class CFailingService : public TxSdk::CSubsystem
{
public:
    CFailingService() { throw Exception(); }
};

template <typename Service>
HRESULT Create(REFIID iid, void** object)
{
    void* classObject = nullptr;
    EXPECT_EQ(TxSdk::GetClassObject<Service>(kClsid, kClsid, IID_ITxSvcClassObject, &classObject), S_OK);
    return CComReference<ITxSvcClassObject>(static_cast<ITxSvcClassObject*>(classObject))
        .Get()
        ->CreateObject(iid, object);
}

} // namespace

TEST(Module, AnswersOnlyItsOwnClassAndInterfaces)
{
    const struct
    {
        const char* name;
        CLSID clsid;
        IID iid;
        HRESULT expected;
    } cases[] = {
        {"as the host asks", kClsid, IID_ITxSvcClassObject, S_OK},
        {"IUnknown", kClsid, IID_IUnknown, S_OK},
        {"another class", IID_ITxSvcSubsystem, IID_ITxSvcClassObject, CLASS_E_CLASSNOTAVAILABLE},
        {"a class factory", kClsid, IID_IClassFactory, E_NOINTERFACE},
    };
    for (const auto& row : cases)
    {
        SCOPED_TRACE(row.name);
        void* object = static_cast<void*>(&object); // Not null.

        const HRESULT result = TxSdk::GetClassObject<CIdleService>(kClsid, row.clsid, row.iid, &object);

        EXPECT_EQ(result, row.expected);
        ASSERT_EQ(object != nullptr, SUCCEEDED(row.expected));
        EXPECT_EQ(TxSdk::CanUnloadNow(), object != nullptr ? S_FALSE : S_OK);
        if (object != nullptr)
        {
            EXPECT_EQ(static_cast<IUnknown*>(object)->Release(), 0u);
        }
        EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK);
    }
    EXPECT_EQ(TxSdk::GetClassObject<CIdleService>(kClsid, kClsid, IID_ITxSvcClassObject, nullptr), E_POINTER);
}

TEST(Module, CreatesObjectsThatCountTheirReferences)
{
    void* subsystem = nullptr;
    ASSERT_EQ(Create<CIdleService>(IID_ITxSvcSubsystem, &subsystem), S_OK);
    void* object = nullptr;
    auto* const unknown = static_cast<IUnknown*>(subsystem);

    EXPECT_EQ(unknown->QueryInterface(IID_IUnknown, &object), S_OK);
    EXPECT_EQ(unknown->AddRef(), 3u);
    EXPECT_EQ(unknown->Release(), 2u);
    EXPECT_EQ(unknown->Release(), 1u);
    EXPECT_EQ(TxSdk::CanUnloadNow(), S_FALSE);
    EXPECT_EQ(unknown->Release(), 0u);
    EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK);
}

TEST(Module, ReportsWhyAnObjectCannotBeCreated)
{
    const struct
    {
        const char* name;
        HRESULT (*create)(REFIID iid, void** object);
        IID iid;
        HRESULT expected;
    } cases[] = {
        {"no memory", &Create<CFailingService<std::bad_alloc>>, IID_ITxSvcSubsystem, E_OUTOFMEMORY},
        {"any exception", &Create<CFailingService<int>>, IID_ITxSvcSubsystem, E_UNEXPECTED},
        {"unknown interface", &Create<CIdleService>, IID_IClassFactory, E_NOINTERFACE},
    };
    for (const auto& row : cases)
    {
        SCOPED_TRACE(row.name);
        void* object = static_cast<void*>(&object); // Not null.

        EXPECT_EQ(row.create(row.iid, &object), row.expected);

        EXPECT_EQ(object, nullptr);
        EXPECT_EQ(TxSdk::CanUnloadNow(), S_OK);
    }
    EXPECT_EQ(Create<CIdleService>(IID_ITxSvcSubsystem, nullptr), E_POINTER);
}
