/// @file
/// Stands for the host: has a log controller for a scope, writes the calls that a test double recorded into
/// the file that its argument names (UTF-16), and exits with the controller's status.

#include <windows.h>

#include <string>

#include "base/Owned.h"
#include "doubles/Record.h"
#include "logging/AutoLogController.h"

int wmain(int argc, wchar_t** argv)
{
    if (argc < 2)
    {
        return -1;
    }
    DWORD status = 0;
    {
        const ETWLogging::AutoLogController controller(L"WSS");
        status = controller.Status();
    }
    const std::wstring calls = RecordedCalls();
    const Basalt::CFile file(::CreateFileW(argv[1], GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    ::WriteFile(
        file.Get(), calls.data(), static_cast<DWORD>(calls.size() * sizeof(wchar_t)), &written, nullptr);
    return static_cast<int>(status);
}
