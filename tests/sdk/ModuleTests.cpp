#include <windows.h>

#include <gtest/gtest.h>
#include <new>
#include <stdexcept>

#include "TxSubsystemModule.h"
#include "base/Owned.h"
#include "support/TestFolder.h"

using Basalt::CComReference;

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

struct Surprise
{
};

template <typename Service>
HRESULT Create(REFIID iid, void** object)
{
    CComReference<ITxSvcClassObject> classObject;
    EXPECT_EQ(
        TxSdk::GetClassObject<Service>(
            kClsid, kClsid, IID_ITxSvcClassObject, reinterpret_cast<void**>(classObject.Put())),
        S_OK);
    return classObject.Get()->CreateObject(iid, object);
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
    CComReference<ITxSvcSubsystem> subsystem;
    ASSERT_EQ(Create<CIdleService>(IID_ITxSvcSubsystem, reinterpret_cast<void**>(subsystem.Put())), S_OK);
    CComReference<IUnknown> unknown;

    EXPECT_EQ(subsystem.Get()->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(unknown.Put())), S_OK);
    EXPECT_EQ(subsystem.Get()->AddRef(), 3u);
    EXPECT_EQ(subsystem.Get()->Release(), 2u);
    EXPECT_EQ(unknown.Release()->Release(), 1u);
    EXPECT_EQ(TxSdk::CanUnloadNow(), S_FALSE);
    EXPECT_EQ(subsystem.Release()->Release(), 0u);
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
        {"any exception", &Create<CFailingService<Surprise>>, IID_ITxSvcSubsystem, E_UNEXPECTED},
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

TEST(Module, ExportsWhatTheHostLooksFor)
{
    const struct
    {
        const wchar_t* module;
        bool exports;
    } cases[] = {{L"MinimalSubsystem.dll", true}, {L"NoExportSubsystem.dll", false}};
    for (const auto& row : cases)
    {
        const Basalt::CModule module(::LoadLibraryW(BesideTest(row.module).c_str()));
        ASSERT_TRUE(module) << ::GetLastError();

        EXPECT_EQ(::GetProcAddress(module.Get(), "DllGetClassObject") != nullptr, row.exports);
        EXPECT_EQ(::GetProcAddress(module.Get(), "DllCanUnloadNow") != nullptr, row.exports);
    }
}
