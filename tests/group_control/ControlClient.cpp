/// @file
/// A client of group control for tests that need many, or one to kill: ControlClient COUNT
/// Connects to the running host and creates managers, COUNT calls in all. The exit code is the
/// low word of the first failure's HRESULT, 0 without one.
#include <windows.h>
#include <objbase.h>

#include <cwchar>

#include "TxSvcGroupControl.h"

namespace
{

HRESULT CreateManager(ITxSvcClassObject* classObject)
{
    ITxSvcSubsystemControlManager* control = nullptr;
    const HRESULT created =
        classObject->CreateObject(IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
    if (FAILED(created))
    {
        return created;
    }
    const HRESULT called = control->Reserved();
    control->Release();
    // For the test that waits until the crowd is in.
    if (const HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"TxControlClientCreated"))
    {
        ::SetEvent(event);
        ::CloseHandle(event);
    }
    return called == E_NOTIMPL ? S_OK : called;
}

HRESULT CreateManagers(unsigned long count)
{
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = S_OK;
    while (SUCCEEDED(result) && count-- != 0)
    {
        result = classObject != nullptr ? CreateManager(classObject)
                                        : ::CoGetClassObject(
                                              CLSID_TxSvcSubsystemControlManager,
                                              CLSCTX_LOCAL_SERVER,
                                              nullptr,
                                              IID_ITxSvcClassObject,
                                              reinterpret_cast<void**>(&classObject));
        if (result == HRESULT_FROM_WIN32(RPC_S_SERVER_TOO_BUSY))
        {
            result = S_OK; // Wine's pipes let a crowd in one after another.
        }
    }
    if (classObject != nullptr)
    {
        classObject->Release();
    }
    return result;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2 || FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
    {
        return ERROR_INVALID_PARAMETER;
    }
    const HRESULT result = CreateManagers(std::wcstoul(argv[1], nullptr, 10));
    ::CoUninitialize();
    return HRESULT_CODE(result);
}
