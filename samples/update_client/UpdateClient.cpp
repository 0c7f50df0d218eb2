/// @file
/// An update client: while it runs, hosts that start end at once instead of running their services.
///
///     UpdateClient             until Enter
///     UpdateClient SECONDS     for so long
///
/// Ctrl+C ends both. Exit code: 0, or 1 with the failing step on the standard error output.
#include <windows.h>
#include <objbase.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <thread>

#include "TxUpdateClient.h"

namespace
{

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr unsigned long kMostSeconds = 86400;

/// Objects that live as long as the program: their references need no counting.
template <typename Interface, const IID& Id>
class CStatic : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == Id || iid == IID_IUnknown ? static_cast<Interface*>(this) : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

class CUpdateClient final : public CStatic<ITxUpdateClientRot, IID_ITxUpdateClientRot>
{
public:
    /// On one of COM's threads, for several hosts at a time.
    HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) override
    {
        *installing = 1;
        std::puts("A host asked: yes, an update is being installed.");
        return S_OK;
    }
};

class CUpdateClientClass final : public CStatic<ITxSvcClassObject, IID_ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID iid, void** object) override
    {
        return m_client.QueryInterface(iid, object);
    }

private:
    CUpdateClient m_client;
};

CUpdateClientClass g_class;
HANDLE g_end = nullptr;

int Fail(const char* step, HRESULT code)
{
    std::fprintf(stderr, "%s: 0x%08lX\n", step, static_cast<unsigned long>(code));
    return kExitFailure;
}

BOOL WINAPI EndOnCtrlC(DWORD control)
{
    return (control == CTRL_C_EVENT || control == CTRL_BREAK_EVENT) && ::SetEvent(g_end);
}

/// A thread's whole work, so that Ctrl+C ends the wait as well.
void EndOnEnter()
{
    char line[16];
    DWORD size = 0;
    ::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), line, sizeof(line), &size, nullptr);
    ::SetEvent(g_end);
}

/// Holds the event, which hosts that start look for.
int KeepHostsDown(DWORD timeMs)
{
    // Made last and closed first: whoever finds the event must find the class object too.
    const std::wstring name = std::wstring(kTxUpdateEventPrefix) + kTxUpdateDefaultInstance;
    const HANDLE update = ::CreateEventW(nullptr, FALSE, FALSE, name.c_str());
    const DWORD error = ::GetLastError();
    if (update == nullptr)
    {
        return Fail("The update's event", HRESULT_FROM_WIN32(error));
    }
    if (error == ERROR_ALREADY_EXISTS)
    {
        ::CloseHandle(update);
        return Fail("Another update is under way", HRESULT_FROM_WIN32(error));
    }
    std::puts("Hosts that start now end at once.");
    ::WaitForSingleObject(g_end, timeMs);
    ::CloseHandle(update);
    std::puts("Hosts may start again.");
    return 0;
}

int RegisterAndKeepHostsDown(DWORD timeMs)
{
    // The apartment is the multithreaded one, so that the main thread may wait without serving calls.
    HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result))
    {
        return Fail("CoInitializeEx", result);
    }
    int exitCode = kExitFailure;
    DWORD cookie = 0;
    result = ::CoRegisterClassObject(
        CLSID_TxUpdateClient, &g_class, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie);
    if (FAILED(result))
    {
        Fail("CoRegisterClassObject", result);
    }
    else
    {
        exitCode = KeepHostsDown(timeMs);
        ::CoRevokeClassObject(cookie);
    }
    ::CoUninitialize();
    return exitCode;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const unsigned long seconds = argc == 2 ? std::wcstoul(argv[1], nullptr, 10) : 0;
    if (argc > 2 || (argc == 2 && (seconds == 0 || seconds > kMostSeconds)))
    {
        std::fputs("usage: UpdateClient [SECONDS]\n", stderr);
        return kExitUsage;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0); // Also where it is redirected, to be seen at once.
    g_end = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ::SetConsoleCtrlHandler(&EndOnCtrlC, TRUE);
    if (argc != 2)
    {
        std::thread(&EndOnEnter).detach();
    }
    return RegisterAndKeepHostsDown(argc == 2 ? seconds * 1000 : INFINITE);
}
