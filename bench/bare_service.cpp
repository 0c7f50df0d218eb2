/// @file
/// The least that a service process can do, to compare with: initialise COM for the multithreaded apartment
/// on the service's thread, report that it runs, and wait for its stop. With "/com" the least that can be
/// called through COM, as a host can: COM on the main thread as well, its security, one class object. With
/// "/com /pool" it also has what makes the system's pool begin its threads in a host: a timer of a queue of
/// its own, and a wait.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cwchar>

#include "StartMark.h"

namespace
{

HANDLE g_stop = nullptr; ///< Set before the dispatcher starts.
SERVICE_STATUS_HANDLE g_status = nullptr;

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

void Report(DWORD state)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    ::SetServiceStatus(g_status, &status);
}

void WINAPI Control(DWORD control)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        ::SetEvent(g_stop);
    }
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* argv)
{
    g_status = ::RegisterServiceCtrlHandlerW(argv[0], &Control);
    if (SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
    {
        Report(SERVICE_RUNNING);
        MarkRunning();
        ::WaitForSingleObject(g_stop, INFINITE);
        ::CoUninitialize();
    }
    Report(SERVICE_STOPPED);
}

int Dispatch()
{
    wchar_t anyName[] =
        L""; // The one service of an own process goes by whatever name it was installed under.
    const SERVICE_TABLE_ENTRYW table[] = {{anyName, &ServiceMain}, {}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(::GetLastError());
}

int DispatchWithCom()
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
    const int result = Dispatch();
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
    ::RegisterWaitForSingleObject(&wait, g_stop, &NoCallback, nullptr, INFINITE, WT_EXECUTEONLYONCE);
    ::CreateTimerQueueTimer(&timer, ::CreateTimerQueue(), &NoCallback, nullptr, kNeverMs, 0, 0);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    g_stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const auto isAsked = [&](const wchar_t* option) {
        return std::any_of(argv + 1, argv + argc, [=](const wchar_t* argument) {
            return std::wcscmp(argument, option) == 0;
        });
    };
    if (isAsked(L"/pool"))
    {
        BeginPoolThreads();
    }
    return isAsked(L"/com") ? DispatchWithCom() : Dispatch();
}
