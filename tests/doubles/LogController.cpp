/// @file
/// A log controller library that records its calls, at Stop also for other processes, where kTestRecordKey
/// exists. Modes: "fail" (Start gives 1234), "throw" (all throw).

#include <windows.h>

#include "doubles/Record.h"
#include "subsystems/TestSubsystemIds.h"

namespace
{

DWORD Perform(const std::wstring& call, DWORD result = ERROR_SUCCESS)
{
    Record(call);
    if (IsMode(L"throw"))
    {
        throw 5;
    }
    return result;
}

} // namespace

extern "C"
{
    __declspec(dllexport) DWORD WINAPI Start(const wchar_t* name)
    {
        return Perform(std::wstring(L"Start ") + name, IsMode(L"fail") ? 1234 : ERROR_SUCCESS);
    }
    __declspec(dllexport) DWORD WINAPI Stop(DWORD_PTR zero, const wchar_t* name)
    {
        const DWORD result = Perform(L"Stop " + std::to_wstring(zero) + L" " + name);
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTestRecordKey, 0, KEY_SET_VALUE, &key) == ERROR_SUCCESS)
        {
            const auto write = [key](
                                   const std::wstring& value,
                                   DWORD type,
                                   const void* data,
                                   std::size_t size) {
                ::RegSetValueExW(
                    key, value.c_str(), 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size));
            };
            const DWORD yes = 1;
            const std::wstring calls = RecordedCalls();
            write(L"Stop-" + std::to_wstring(::GetCurrentProcessId()), REG_DWORD, &yes, sizeof(yes));
            write(L"controller", REG_SZ, calls.c_str(), (calls.size() + 1) * sizeof(wchar_t));
            ::RegCloseKey(key);
        }
        return result;
    }
    __declspec(dllexport) DWORD WINAPI RestartSession(const wchar_t*)
    {
        return Perform(L"RestartSession");
    }
#ifndef TX_WITHOUT_FLUSH
    __declspec(dllexport) DWORD WINAPI FlushBuffers(const wchar_t*)
    {
        return Perform(L"FlushBuffers");
    }
    __declspec(dllexport) DWORD WINAPI DllAddRef()
    {
        ::SetLastError(ERROR_BUSY);
        return Perform(L"DllAddRef");
    }
    __declspec(dllexport) DWORD WINAPI DllRelease()
    {
        return Perform(L"DllRelease");
    }
#endif
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_DETACH)
    {
        Record(L"unloaded");
    }
    return TRUE;
}
