/// @file
/// A service that does one thing wrong at one moment of its life, both named in the registry. Built with both
/// compilers, whose exceptions differ.
#include "FaultySubsystem.h"

#include <windows.h>
#include <malloc.h>
#include <objbase.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "TxSubsystemModule.h"
#include "subsystems/TestSubsystemIds.h"

namespace
{

const std::wstring g_fault = ReadRecord(kFaultRecord);
HANDLE g_stop = nullptr;
SERVICE_STATUS_HANDLE g_handle = nullptr;

void Throw()
{
    throw std::runtime_error("thrown on purpose");
}

struct CThrowsAtItsEnd
{
    ~CThrowsAtItsEnd() { Throw(); } // NOLINT(bugprone-exception-escape): that is the fault.
};

void Report(DWORD state, DWORD exitCode = NO_ERROR)
{
    const DWORD accepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SERVICE_STATUS status = {SERVICE_WIN32_SHARE_PROCESS, state, accepted, exitCode, 0, 0, 0};
    ::SetServiceStatus(g_handle, &status);
}

DWORD WINAPI ReportLate(void*)
{
    ::Sleep(150);
    Report(SERVICE_RUNNING);
    ::Sleep(50);
    Report(SERVICE_STOPPED);
    return 0;
}

/// What the compiler may not take for granted never to happen.
void DoHardwareFault(const std::wstring& kind)
{
    if (kind == L"violation")
    {
        *static_cast<volatile int*>(::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS)) = 1;
    }
    if (kind == L"division")
    {
        __asm__ volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\tcltd\n\tidivl %%ecx" ::
                             : "eax", "ecx", "edx");
    }
    if (kind == L"overflow")
    {
        // More than the whole stack at once: Wine keeps none back for a handler.
        const volatile std::size_t size = std::size_t{64} * 1024 * 1024;
        *static_cast<volatile char*>(::_alloca(size)) = 1;
    }
}

/// @return whether the phase's rest is left out.
bool At(const wchar_t* phase)
{
    if (g_fault.rfind(std::wstring(phase) + L" ", 0) != 0)
    {
        return false;
    }
    const std::wstring kind = g_fault.substr(std::wstring(phase).size() + 1);
    DoHardwareFault(kind);
    if (kind == L"throw")
    {
        Throw();
    }
    if (kind == L"destructor")
    {
        const CThrowsAtItsEnd object;
        static_cast<void>(object);
    }
    if (kind == L"hang")
    {
        ::Sleep(INFINITE);
    }
    if (kind == L"thread-exit")
    {
        ::ExitThread(0);
    }
    if (kind == L"com-count")
    {
        ::CoUninitialize();
        ::CoUninitialize();
    }
    if (kind == L"stopped-twice" || kind == L"stopped-fails")
    {
        Report(SERVICE_STOPPED, ERROR_NOT_READY);
    }
    if (kind == L"stopped-twice")
    {
        Report(SERVICE_STOPPED);
    }
    if (kind == L"late-report")
    {
        Report(SERVICE_STOPPED);
        ::CloseHandle(::CreateThread(nullptr, 0, &ReportLate, nullptr, 0, nullptr));
    }
    return kind.rfind(L"stopped-", 0) == 0 || kind == L"late-report";
}

HRESULT ResultOf()
{
    return g_fault.find(L"stopped-fails") != std::wstring::npos ? E_FAIL : S_OK;
}

DWORD WINAPI Control(DWORD control, DWORD, void*, void*)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        Report(SERVICE_STOP_PENDING);
        At(L"control");
        ::SetEvent(g_stop);
    }
    return NO_ERROR;
}

class CFaulty final : public TxSdk::Detail::CUnknown<ITxSvcSubsystem, IID_ITxSvcSubsystem>
{
public:
    HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD, LPWSTR* argv, DWORD* result) override
    {
        g_stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_handle = ::RegisterServiceCtrlHandlerExW(argv[0], &Control, nullptr);
        Report(SERVICE_START_PENDING);
        if (At(L"start"))
        {
            return ResultOf();
        }
        Report(SERVICE_RUNNING);
        if (At(L"run"))
        {
            return ResultOf();
        }
        ::WaitForSingleObject(g_stop, INFINITE);
        if (At(L"stop"))
        {
            return ResultOf();
        }
        *result = g_fault.rfind(L"unload ", 0) == 0 ? kTxSvcUnloadModule : 0;
        Report(SERVICE_STOPPED);
        return S_OK;
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = CUnknown::Release();
        if (left == 0)
        {
            At(L"release");
        }
        return left;
    }
};

class CFaultyClass final : public TxSdk::Detail::CUnknown<ITxSvcClassObject, IID_ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) override
    {
        At(L"create");
        auto* const service = new CFaulty;
        const HRESULT result = service->QueryInterface(riid, object);
        service->CUnknown::Release();
        return result;
    }
};

struct CStatic
{
    CStatic() { At(L"static"); }
};
const CStatic g_static; // NOLINT: what happens in its constructor is what is tried.

} // namespace

TX_SUBSYSTEM_EXPORTS

STDAPI DllGetClassObject(REFCLSID, REFIID iid, void** object)
{
    At(L"class");
    auto* const classObject = new CFaultyClass;
    const HRESULT result = classObject->QueryInterface(iid, object);
    classObject->CUnknown::Release();
    return result;
}

STDAPI DllCanUnloadNow()
{
    return S_FALSE;
}

// NOLINTNEXTLINE(misc-use-internal-linkage): the runtime calls it
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* processEnds)
{
    if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
    {
        At(L"unload");
    }
    return TRUE;
}
