/// @file
/// The least that a service process can do, to compare with: initialise COM for the multithreaded apartment
/// on the service's thread, report that it runs, and wait for its stop. With "/com" the least that can be
/// called through COM, as a host can: COM on the main thread as well, its security, one class object. With
/// "/com /pool" it also has what makes the system's pool begin its threads in a host: a timer of a queue of
/// its own, and a wait.
#include <windows.h>
#include <objbase.h>

#include <cwchar>

#include "StartMark.h"

namespace
{

/// Makes nothing.
class CNoFactory final : public IClassFactory
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID /*iid*/, void** object) override
    {
        *object = this;
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* /*outer*/, REFIID /*iid*/, void** object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL /*lock*/) override { return S_OK; }
};

void Report(SERVICE_STATUS_HANDLE service, DWORD state)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    ::SetServiceStatus(service, &status);
}

DWORD WINAPI Control(DWORD control, DWORD /*type*/, void* /*data*/, void* stop)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        ::SetEvent(stop);
    }
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* argv)
{
    const HANDLE stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const SERVICE_STATUS_HANDLE service = ::RegisterServiceCtrlHandlerExW(argv[0], &Control, stop);
    if (SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
    {
        Report(service, SERVICE_RUNNING);
        MarkRunning();
        ::WaitForSingleObject(stop, INFINITE);
        ::CoUninitialize();
    }
    Report(service, SERVICE_STOPPED);
}

int Dispatch(wchar_t* const* names, int count)
{
    constexpr int kMost = 512;
    static SERVICE_TABLE_ENTRYW s_table[kMost + 1];
    static wchar_t s_anyName[] = L""; // A single service goes by whatever name it was installed under.
    s_table[0] = {s_anyName, &ServiceMain};
    for (int i = 0; i < count && i < kMost; ++i)
    {
        s_table[i] = {names[i], &ServiceMain};
    }
    return ::StartServiceCtrlDispatcherW(s_table) ? 0 : static_cast<int>(::GetLastError());
}

int DispatchWithCom(wchar_t* const* names, int count)
{
    // {7B0F9D4E-63C5-4D3B-8C3F-52E0D1A9B7C1}
    constexpr CLSID kClass = {0x7B0F9D4E, 0x63C5, 0x4D3B, {0x8C, 0x3F, 0x52, 0xE0, 0xD1, 0xA9, 0xB7, 0xC1}};
    CNoFactory factory;
    DWORD cookie = 0;
    if (FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)) ||
        FAILED(::CoInitializeSecurity(
            nullptr,
            -1,
            nullptr,
            nullptr,
            RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
            RPC_C_IMP_LEVEL_IDENTIFY,
            nullptr,
            EOAC_NONE,
            nullptr)) ||
        FAILED(::CoRegisterClassObject(kClass, &factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie)))
    {
        return 1;
    }
    const int result = Dispatch(names, count);
    ::CoRevokeClassObject(cookie);
    ::CoUninitialize();
    return result;
}

void CALLBACK NoCallback(void* /*context*/, BOOLEAN /*isTimer*/) {}

/// Neither comes to an end before the process does.
void BeginPoolThreads()
{
    constexpr DWORD kNeverMs = 10 * 60 * 1000;
    HANDLE wait = nullptr, timer = nullptr;
    const HANDLE never = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ::RegisterWaitForSingleObject(&wait, never, &NoCallback, nullptr, INFINITE, WT_EXECUTEONLYONCE);
    ::CreateTimerQueueTimer(&timer, ::CreateTimerQueue(), &NoCallback, nullptr, kNeverMs, 0, 0);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    int at = 1;
    const auto takeOption = [&](const wchar_t* option) {
        const bool isThere = at < argc && std::wcscmp(argv[at], option) == 0;
        at += isThere ? 1 : 0;
        return isThere;
    };
    const bool hasCom = takeOption(L"/com");
    if (takeOption(L"/pool"))
    {
        BeginPoolThreads();
    }
    return hasCom ? DispatchWithCom(argv + at, argc - at) : Dispatch(argv + at, argc - at);
}
