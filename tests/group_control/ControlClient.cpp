/// @file
/// Clients of group control for tests that need many, or one to kill: ControlClient COUNT [THREADS REST]
/// Each thread connects to the running host and creates a manager, COUNT times. In between it rests, the last
/// thread REST ms and the others an even part of it. The exit code is the low word
/// of the first failure's HRESULT, 0 without one.
///
/// A test may make these objects: the event TxControlClientStart, which all threads wait for; the semaphore
/// TxControlClientArrived, which each thread releases once when it has its first manager; and the event
/// TxControlClientWake, which ends all rests.
#include <windows.h>
#include <objbase.h>

#include <cwchar>
#include <thread>
#include <vector>

#include "TxSvcGroupControl.h"

namespace
{

HRESULT CreateManager()
{
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = ::CoGetClassObject(
        CLSID_TxSvcSubsystemControlManager,
        CLSCTX_LOCAL_SERVER,
        nullptr,
        IID_ITxSvcClassObject,
        reinterpret_cast<void**>(&classObject));
    if (FAILED(result))
    {
        return result;
    }
    ITxSvcSubsystemControlManager* control = nullptr;
    result = classObject->CreateObject(IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
    if (SUCCEEDED(result))
    {
        result = control->Reserved() == E_NOTIMPL ? S_OK : E_UNEXPECTED;
        control->Release();
    }
    classObject->Release();
    return result;
}

/// Named objects of the test, null when it has none.
const HANDLE g_start = ::OpenEventW(SYNCHRONIZE, FALSE, L"TxControlClientStart");
const HANDLE g_arrived = ::OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, L"TxControlClientArrived");
const HANDLE g_wake = ::OpenEventW(SYNCHRONIZE, FALSE, L"TxControlClientWake");

HRESULT CreateManagers(unsigned long count, DWORD restMs)
{
    ::WaitForSingleObject(g_start, INFINITE);
    for (bool isFirst = true; count != 0; --count)
    {
        const HRESULT result = CreateManager();
        if (result == HRESULT_FROM_WIN32(RPC_S_SERVER_TOO_BUSY))
        {
            continue; // Wine's pipes let a crowd in one after another.
        }
        if (FAILED(result))
        {
            return result;
        }
        if (isFirst)
        {
            ::ReleaseSemaphore(g_arrived, 1, nullptr);
        }
        isFirst = false;
        ::WaitForSingleObject(g_wake, restMs);
    }
    return S_OK;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if ((argc != 2 && argc != 4) || FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
    {
        return ERROR_INVALID_PARAMETER;
    }
    const unsigned long count = std::wcstoul(argv[1], nullptr, 10);
    std::vector<HRESULT> results(argc == 4 ? std::wcstoul(argv[2], nullptr, 10) : 1);
    const DWORD restMs =
        argc == 4 ? std::wcstoul(argv[3], nullptr, 10) / static_cast<DWORD>(results.size()) : 0;
    std::vector<std::thread> threads;
    for (HRESULT& result : results)
    {
        const DWORD ownRestMs = restMs * static_cast<DWORD>(threads.size() + 1);
        threads.emplace_back([&result, count, ownRestMs] { result = CreateManagers(count, ownRestMs); });
    }
    HRESULT first = S_OK;
    for (std::size_t i = 0; i < threads.size(); ++i)
    {
        threads[i].join();
        first = FAILED(first) ? first : results[i];
    }
    ::CoUninitialize();
    return HRESULT_CODE(first);
}
