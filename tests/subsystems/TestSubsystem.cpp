#include <windows.h>
#include <malloc.h>

#include <cwchar>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include "TestSubsystemIds.h"
#include "TxSubsystemModule.h"
#include "base/ClassObject.h"
#include "proxy/FirstRunGate.h"

namespace
{

bool Says(std::wstring_view text, std::wstring_view word)
{
    return text.find(word) != std::wstring_view::npos;
}

/// Does what a behaviour says after its place.
HRESULT Act(std::wstring_view act)
{
    if (act == L"Throws")
    {
        throw std::runtime_error("thrown on purpose");
    }
    if (act == L"Crashes") // In a way that no compiler may take for undefined behaviour and drop.
    {
        *static_cast<volatile int*>(::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS)) = 1;
    }
    if (act == L"Overflows")
    {
        // More than the whole stack at once: the page that faults then is far from what is in use. Wine keeps
        // no stack back for a handler, and ends a thread that has too little left.
        const volatile std::size_t size = std::size_t{64} * 1024 * 1024;
        *static_cast<volatile char*>(::_alloca(size)) = 1;
    }
    return act == L"Fails" ? E_FAIL : S_OK;
}

DWORD WINAPI IgnoreControl(DWORD, DWORD, void*, void*)
{
    return NO_ERROR;
}

void Report(const wchar_t* service, DWORD state, DWORD exitCode)
{
    SERVICE_STATUS status = {SERVICE_WIN32_SHARE_PROCESS, state, 0, exitCode, 0, 0, 0};
    ::SetServiceStatus(::RegisterServiceCtrlHandlerExW(service, &IgnoreControl, nullptr), &status);
}

class CTestService : public TxSdk::CSubsystem
{
public:
    explicit CTestService(std::wstring_view behaviour) noexcept : m_behaviour(behaviour) {}

    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) override
    {
        if (m_behaviour.starts_with(L"Early"))
        {
            return Act(m_behaviour.substr(5));
        }
        if (m_behaviour.starts_with(L"Running") || m_behaviour.starts_with(L"Stopped"))
        {
            Report(argv[0], SERVICE_RUNNING, NO_ERROR);
            m_behaviour[0] == L'S' ? Report(argv[0], SERVICE_STOPPED, ERROR_NOT_READY) : void();
            return Act(m_behaviour.substr(7));
        }
        return CSubsystem::TxServiceMain(argc, argv, result);
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const bool throws = m_behaviour == L"ReleaseThrows";
        const ULONG left = CSubsystem::Release();
        static_cast<void>(left == 0 && throws ? Act(L"Throws") : S_OK);
        return left;
    }

private:
    DWORD OnStart(DWORD argc, LPWSTR* argv) override
    {
        const std::wstring_view command = argc > 1 ? argv[1] : L"";
        m_exitAtOnce = command == L"exit";
        if (m_exitAtOnce)
        {
            SetExitCode(std::wcstoul(argv[2], nullptr, 10));
        }
        if (command == L"tell")
        {
            Record(
                L"told",
                L"error mode " + std::to_wstring(::GetErrorMode()) + L", priority " +
                    std::to_wstring(::GetThreadPriority(::GetCurrentThread())));
        }
        return m_behaviour == L"StartFails" ? ERROR_NOT_READY : ERROR_SUCCESS;
    }

    void Run(HANDLE stopEvent) override
    {
        if (m_behaviour == L"UnloadAfterStop")
        {
            SetUnloadAfterStop();
        }
        ::WaitForSingleObject(stopEvent, m_exitAtOnce ? 0 : INFINITE);
    }

    const std::wstring_view m_behaviour;
    bool m_exitAtOnce = false;
};

/// Loads that come one after another never meet.
void LoadSlowly()
{
    static const HANDLE s_met = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static LONG s_loading = 0;
    if (::InterlockedIncrement(&s_loading) == 2)
    {
        ::SetEvent(s_met);
    }
    const DWORD milliseconds = std::wcstoul(ReadRecord(L"LoadMs").c_str(), nullptr, 10);
    Record(L"met", ::WaitForSingleObject(s_met, milliseconds) == WAIT_OBJECT_0 ? L"yes" : L"no");
    ::InterlockedDecrement(&s_loading);
}

/// A class object, and the configuration object of the first-run service. Never freed.
class CTestClassObject final : public ITxSvcClassObject, public IOobeConfiguration
{
public:
    explicit CTestClassObject(std::wstring_view behaviour) noexcept : m_behaviour(behaviour) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE GetServiceEnabledState(USHORT* state, DWORD* error) override
    {
        const std::wstring mode = ReadRecord(L"Oobe");
        *state = static_cast<USHORT>(std::wcstoul(mode.c_str(), nullptr, 10));
        *error = Says(mode, L"error") ? ERROR_NOT_READY : *error;
        static_cast<void>(Says(mode, L"throws") ? Act(L"Throws") : S_OK);
        return Says(mode, L"fails") ? E_FAIL : S_OK;
    }

    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        *object = nullptr;
        if (riid == IID_IOobeConfiguration)
        {
            *object =
                Says(ReadRecord(L"Oobe"), L"refused") ? nullptr : static_cast<IOobeConfiguration*>(this);
            return *object != nullptr ? S_OK : E_ACCESSDENIED;
        }
        if (m_behaviour.starts_with(L"Create"))
        {
            return Act(m_behaviour.substr(6));
        }
        m_behaviour == L"SlowLoad" ? LoadSlowly() : void();
        auto* const service = new CTestService(m_behaviour);
        const HRESULT result = service->QueryInterface(riid, object);
        service->CSubsystem::Release();
        return result;
    }

private:
    const std::wstring_view m_behaviour;
};

} // namespace

TX_SUBSYSTEM_EXPORTS

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    const bool isFirstRun = clsid == CLSID_OobeConfiguration;
    const bool isOld = isFirstRun && Says(ReadRecord(L"Oobe"), L"old");
    const std::size_t number = isFirstRun ? 1 : clsid.Data4[7];
    *object = nullptr;
    if (number == 0 || number > std::size(kTestBehaviours) ||
        iid != (isOld ? Basalt::IID_ITxSvcClassObjectOld : IID_ITxSvcClassObject))
    {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    const std::wstring_view behaviour = kTestBehaviours[number - 1];
    if (behaviour.starts_with(L"Class"))
    {
        return Act(behaviour.substr(5));
    }
    *object = static_cast<ITxSvcClassObject*>(new CTestClassObject(behaviour));
    return S_OK;
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
        Record(L"unloaded", L"yes");
    }
    return TRUE;
}
