/// @file
/// The hosted service of scale and soak: does what the driver wants and notes when. It leaves nothing behind
/// when it throws or crashes: what a driver sees grow is the host's.
#include <windows.h>

#include <atomic>
#include <new>
#include <stdexcept>

#include "ServiceRecord.h"
#include "TxSubsystemModule.h"

namespace
{

ServiceRecord& Shared()
{
    static ServiceRecord* const s_record = MapServiceRecord();
    return *s_record;
}

LONGLONG Now()
{
    FILETIME time{};
    ::GetSystemTimePreciseAsFileTime(&time);
    return static_cast<LONGLONG>(ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

LONGLONG ThreadBegan()
{
    FILETIME began{}, ended{}, kernel{}, user{};
    ::GetThreadTimes(::GetCurrentThread(), &began, &ended, &kernel, &user);
    return static_cast<LONGLONG>(ULONGLONG{began.dwHighDateTime} << 32 | began.dwLowDateTime);
}

void Throw()
{
    throw std::runtime_error("thrown on purpose");
}

void Crash()
{
    static void* const s_nowhere = ::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS);
    *static_cast<volatile int*>(s_nowhere) = 1;
}

class CRecordedService final : public TxSdk::CSubsystem
{
public:
    CRecordedService(Behaviour behaviour, StartRecord& record) noexcept
        : m_behaviour(behaviour), m_record(record)
    {
    }

    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        switch (m_behaviour)
        {
        case Behaviour::EarlyThrows:
            Throw();
            break;
        case Behaviour::EarlyCrashes:
            Crash();
            break;
        case Behaviour::EarlyFails:
            return E_FAIL;
        default:
            break;
        }
        return CSubsystem::TxServiceMain(argc, argv, result);
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const bool throws = m_behaviour == Behaviour::ReleaseThrows;
        const ULONG left = CSubsystem::Release();
        left == 0 && throws ? Throw() : void();
        return left;
    }

private:
    DWORD OnStart(DWORD /*argc*/, LPWSTR* /*argv*/) override
    {
        return m_behaviour == Behaviour::StartFails ? ERROR_NOT_READY : ERROR_SUCCESS;
    }

    void Run(HANDLE stopEvent) override
    {
        m_record.isRunning = Now();
        ::InterlockedIncrement(&Shared().running);
        switch (m_behaviour)
        {
        case Behaviour::RunningThrows:
            Throw();
            break;
        case Behaviour::RunningCrashes:
            Crash();
            break;
        case Behaviour::EndsItself:
            SetExitCode(ERROR_NOT_READY);
            return;
        case Behaviour::Unloads:
            SetUnloadAfterStop();
            break;
        default:
            break;
        }
        ::WaitForSingleObject(stopEvent, INFINITE);
    }

    const Behaviour m_behaviour;
    StartRecord& m_record;
};

class CRecordedClassObject final : public ITxSvcClassObject
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        *object = nullptr;
        ServiceRecord& shared = Shared();
        const auto behaviour = static_cast<Behaviour>(shared.behaviour);
        const LONG index = ::InterlockedIncrement(&shared.created) - 1;
        StartRecord& record = shared.starts[static_cast<std::size_t>(index) % kMostRecords];
        record = {ThreadBegan(), Now(), 0, 0};
        ::Sleep(static_cast<DWORD>(shared.delayMs));
        switch (behaviour)
        {
        case Behaviour::CreateThrows:
            Throw();
            break;
        case Behaviour::CreateCrashes:
            Crash();
            break;
        case Behaviour::CreateFails:
            return E_FAIL;
        case Behaviour::CreateNull:
            return S_OK;
        default:
            break;
        }
        auto* const service = new (std::nothrow) CRecordedService(behaviour, record);
        if (service == nullptr)
        {
            return E_OUTOFMEMORY;
        }
        const HRESULT result = service->QueryInterface(riid, object);
        service->TxSdk::CSubsystem::Release();
        record.createEnded = Now();
        return result;
    }
};

} // namespace

TX_SUBSYSTEM_EXPORTS

STDAPI DllGetClassObject(REFCLSID /*clsid*/, REFIID iid, void** object)
{
    static CRecordedClassObject s_classObject;
    *object = nullptr;
    switch (static_cast<Behaviour>(Shared().behaviour))
    {
    case Behaviour::ClassThrows:
        Throw();
        break;
    case Behaviour::ClassCrashes:
        Crash();
        break;
    case Behaviour::ClassFails:
        return CLASS_E_CLASSNOTAVAILABLE;
    case Behaviour::ClassNull:
        return S_OK;
    default:
        break;
    }
    *object = iid == IID_ITxSvcClassObject ? &s_classObject : nullptr;
    return *object != nullptr ? S_OK : E_NOINTERFACE;
}

STDAPI DllCanUnloadNow()
{
    return TxSdk::CanUnloadNow();
}
