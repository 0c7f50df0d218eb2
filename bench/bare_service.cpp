/// @file
/// The least that a service process can do: initialise COM for the multithreaded apartment, report that it
/// runs, and wait for its stop. What a hosted service's start costs beyond this one is the host's share.
#include <windows.h>
#include <objbase.h>

namespace
{

HANDLE g_stop = nullptr; ///< Set before the dispatcher starts.
SERVICE_STATUS_HANDLE g_status = nullptr;

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
        ::WaitForSingleObject(g_stop, INFINITE);
        ::CoUninitialize();
    }
    Report(SERVICE_STOPPED);
}

} // namespace

int wmain()
{
    g_stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    wchar_t anyName[] =
        L""; // The one service of an own process goes by whatever name it was installed under.
    const SERVICE_TABLE_ENTRYW table[] = {{anyName, &ServiceMain}, {}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(::GetLastError());
}
