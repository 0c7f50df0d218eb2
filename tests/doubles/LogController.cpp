/// @file
/// A log controller library that adds its calls to the value "controller" of kTestRecordKey, where something
/// stands in it, and at Stop makes a value "Stop-PROCESS" there. The value "mode": "fail" (Start gives 1234),
/// "throw" (all throw).

#include <windows.h>

#include <string>

#include "subsystems/TestSubsystemIds.h"

namespace
{

DWORD Perform(const std::wstring& call)
{
    if (const std::wstring calls = ReadRecord(L"controller"); !calls.empty())
    {
        Record(L"controller", calls + call + L";");
    }
    if (ReadRecord(L"mode") == L"throw" && call != L"unloaded")
    {
        throw 5;
    }
    return ERROR_SUCCESS;
}

} // namespace

extern "C"
{
    __declspec(dllexport) DWORD WINAPI Start(const wchar_t* name)
    {
        return Perform(std::wstring(L"Start ") + name) + (ReadRecord(L"mode") == L"fail" ? 1234 : 0);
    }
    __declspec(dllexport) DWORD WINAPI Stop(DWORD_PTR zero, const wchar_t* name)
    {
        const std::wstring value = L"Stop-" + std::to_wstring(::GetCurrentProcessId());
        const DWORD yes = 1;
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTestRecordKey, value.c_str(), REG_DWORD, &yes, sizeof(yes));
        return Perform(L"Stop " + std::to_wstring(zero) + L" " + name);
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
    return reason != DLL_PROCESS_DETACH || Perform(L"unloaded") == ERROR_SUCCESS;
}
