/// @file
/// Test double of a service host, for the tests of CGroupRunner: a table of services that wait for their stop
/// control.
///
///     fake_host SERVICE...        runs the dispatcher with these services
///     fake_host /exit CODE        ends at once
///     fake_host /sleep            never calls the dispatcher
///
/// Arguments of a service: a key below HKEY_CURRENT_USER under which its arguments are stored as the value
/// named after the service, joined with "|"; then the milliseconds that its thread goes on after it reported
/// the end.
#include <windows.h>

#include <cwchar>
#include <map>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "base/RegKey.h"

namespace
{

struct Service
{
    SERVICE_STATUS_HANDLE status = nullptr;
    Basalt::CHandle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

std::map<std::wstring, Service> g_services; // Complete before the dispatcher starts.

DWORD WINAPI Control(DWORD control, DWORD /*eventType*/, void* /*eventData*/, void* context)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        ::SetEvent(static_cast<Service*>(context)->stop.Get());
        return NO_ERROR;
    }
    return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

void Report(const Service& service, DWORD state)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    ::SetServiceStatus(service.status, &status);
}

void WINAPI ServiceMain(DWORD argc, LPWSTR* argv)
{
    Service& service = g_services.at(argv[0]);
    service.status = ::RegisterServiceCtrlHandlerExW(argv[0], &Control, &service);
    if (argc > 1)
    {
        std::wstring joined;
        for (DWORD i = 1; i < argc; ++i)
        {
            joined += (i == 1 ? L"" : L"|") + std::wstring(argv[i]);
        }
        Basalt::CRegKey key;
        static_cast<void>(key.Create(HKEY_CURRENT_USER, argv[1], KEY_WRITE));
        static_cast<void>(key.WriteString(argv[0], joined));
    }
    Report(service, SERVICE_RUNNING);
    ::WaitForSingleObject(service.stop.Get(), INFINITE);
    ::ResetEvent(service.stop.Get()); // It may be started again.
    Report(service, SERVICE_STOPPED);
    ::Sleep(argc > 2 ? std::wcstoul(argv[2], nullptr, 10) : 0);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc > 2 && std::wcscmp(argv[1], L"/exit") == 0)
    {
        return static_cast<int>(std::wcstoul(argv[2], nullptr, 10));
    }
    if (argc > 1 && std::wcscmp(argv[1], L"/sleep") == 0)
    {
        ::Sleep(INFINITE);
    }
    std::vector<SERVICE_TABLE_ENTRYW> table;
    for (int i = 1; i < argc; ++i)
    {
        g_services[argv[i]]; // Makes the entry.
        table.push_back({argv[i], &ServiceMain});
    }
    table.push_back({});
    return ::StartServiceCtrlDispatcherW(table.data()) ? 0 : static_cast<int>(::GetLastError());
}
