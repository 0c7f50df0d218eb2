#include <windows.h>
#include <malloc.h>

#include <new>
#include <stdexcept>
#include <string>

#include "TestSubsystemIds.h"
#include "TxSubsystemModule.h"

namespace
{

void Record(const std::wstring& name, DWORD type, const void* data, DWORD size)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTestRecordKey, 0, KEY_SET_VALUE, &key) == ERROR_SUCCESS)
    {
        ::RegSetValueExW(key, name.c_str(), 0, type, static_cast<const BYTE*>(data), size);
        ::RegCloseKey(key);
    }
}

[[noreturn]] void Throw()
{
    throw std::runtime_error("thrown on purpose");
}

/// An access violation that no compiler may take for undefined behaviour and drop.
void Crash()
{
    auto* const page = static_cast<volatile int*>(::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS));
    *page = 1;
}

/// Asks for more than the whole stack at once: the page that faults then is far from what is in use. Wine
/// keeps no stack back for a handler, and ends a thread that has too little left.
void OverflowStack()
{
    const volatile std::size_t size = std::size_t{64} * 1024 * 1024;
    *static_cast<volatile char*>(::_alloca(size)) = 1;
}

DWORD WINAPI IgnoreControl(DWORD, DWORD, void*, void*)
{
    return NO_ERROR;
}

class CTestService : public TxSdk::CSubsystem
{
public:
    explicit CTestService(TestBehaviour behaviour) noexcept : m_behaviour(behaviour) {}

    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        switch (m_behaviour)
        {
        case TestBehaviour::ThrowRunning:
            report(argv[0], SERVICE_RUNNING, NO_ERROR);
            Throw();
        case TestBehaviour::ThrowEarly:
            Throw();
        case TestBehaviour::CrashRunning:
            report(argv[0], SERVICE_RUNNING, NO_ERROR);
            Crash();
            return S_OK;
        case TestBehaviour::CrashEarly:
            Crash();
            return S_OK;
        case TestBehaviour::StackOverflow:
            OverflowStack();
            return S_OK;
        case TestBehaviour::FailAfterStopped:
            report(argv[0], SERVICE_RUNNING, NO_ERROR);
            report(argv[0], SERVICE_STOPPED, ERROR_NOT_READY);
            return E_FAIL;
        case TestBehaviour::FailSilently:
            return E_FAIL;
        default:
            return CSubsystem::TxServiceMain(argc, argv, result);
        }
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const TestBehaviour behaviour = m_behaviour;
        const ULONG left = CSubsystem::Release();
        if (left == 0 && behaviour == TestBehaviour::ReleaseThrows)
        {
            Throw();
        }
        return left;
    }

private:
    DWORD OnStart(DWORD argc, LPWSTR* argv) override
    {
        m_exitAtOnce = argc == 3 && std::wstring(argv[1]) == L"exit";
        if (m_exitAtOnce)
        {
            SetExitCode(std::stoul(argv[2]));
        }
        return m_behaviour == TestBehaviour::StartFails ? ERROR_NOT_READY : ERROR_SUCCESS;
    }

    void Run(HANDLE stopEvent) override
    {
        if (m_behaviour == TestBehaviour::UnloadAfterStop)
        {
            SetUnloadAfterStop();
        }
        ::WaitForSingleObject(stopEvent, m_exitAtOnce ? 0 : INFINITE);
    }

    void report(const wchar_t* name, DWORD state, DWORD exitCode) noexcept
    {
        if (m_statusHandle == nullptr)
        {
            m_statusHandle = ::RegisterServiceCtrlHandlerExW(name, &IgnoreControl, nullptr);
        }
        SERVICE_STATUS status = {SERVICE_WIN32_SHARE_PROCESS, state, 0, exitCode, 0, 0, 0};
        ::SetServiceStatus(m_statusHandle, &status);
    }

    const TestBehaviour m_behaviour;
    SERVICE_STATUS_HANDLE m_statusHandle = nullptr;
    bool m_exitAtOnce = false;
};

class CTestClassObject final : public TxSdk::Detail::CUnknown<ITxSvcClassObject, IID_ITxSvcClassObject>
{
public:
    explicit CTestClassObject(TestBehaviour behaviour) noexcept : m_behaviour(behaviour) {}

    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        *object = nullptr;
        switch (m_behaviour)
        {
        case TestBehaviour::SlowLoad:
            loadSlowly();
            break;
        case TestBehaviour::CreateFails:
            return E_OUTOFMEMORY;
        case TestBehaviour::CreateThrows:
            Throw();
        case TestBehaviour::CreateGivesNull:
            return S_OK;
        default:
            break;
        }
        auto* const service = new CTestService(m_behaviour);
        const HRESULT result = service->QueryInterface(riid, object);
        service->CSubsystem::Release();
        return result;
    }

private:
    static void loadSlowly()
    {
        LARGE_INTEGER entered;
        LARGE_INTEGER left;
        ::QueryPerformanceCounter(&entered);
        ::Sleep(kSlowLoadMs);
        ::QueryPerformanceCounter(&left);
        const SlowLoadTimes times = {entered.QuadPart, left.QuadPart};
        Record(
            L"SlowLoad-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                std::to_wstring(::GetCurrentThreadId()),
            REG_BINARY,
            &times,
            sizeof(times));
    }

    const TestBehaviour m_behaviour;
};

} // namespace

TX_SUBSYSTEM_EXPORTS

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    const auto behaviour = static_cast<TestBehaviour>(clsid.Data4[7]);
    *object = nullptr;
    if (!(clsid == TestClsid(behaviour)))
    {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    switch (behaviour)
    {
    case TestBehaviour::ClassThrows:
        Throw();
    case TestBehaviour::ClassCrashes:
        Crash();
        return E_UNEXPECTED;
    case TestBehaviour::ClassRefuses:
        return E_NOINTERFACE;
    case TestBehaviour::ClassFails:
        return CLASS_E_CLASSNOTAVAILABLE;
    default:
        break;
    }
    auto* const classObject = new CTestClassObject(behaviour);
    const HRESULT result = classObject->QueryInterface(iid, object);
    classObject->Release();
    return result;
}

STDAPI DllCanUnloadNow()
{
    return TxSdk::CanUnloadNow();
}

// NOLINTNEXTLINE(misc-use-internal-linkage): the runtime calls it
BOOL WINAPI DllMain(HINSTANCE /*module*/, DWORD reason, void* processEnds)
{
    if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
    {
        const DWORD yes = 1;
        Record(L"Unloaded-" + std::to_wstring(::GetCurrentProcessId()), REG_DWORD, &yes, sizeof(yes));
    }
    return TRUE;
}
