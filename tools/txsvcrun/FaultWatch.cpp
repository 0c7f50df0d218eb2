#include "txsvcrun/FaultWatch.h"

#include <windows.h>

#include "base/Text.h"

namespace TxRun::FaultWatch
{

namespace
{

constexpr DWORD kThrownByGnu = 0x20474343;
constexpr DWORD kThrownByVisualCpp = 0xE06D7363;

struct Fault
{
    DWORD code = 0;
    void* address = nullptr;
};

thread_local Fault t_last;
void (*g_onUncaught)(const std::wstring& fault) = nullptr;

const wchar_t* NameOf(DWORD code) noexcept
{
    switch (code)
    {
    case kThrownByGnu:
    case kThrownByVisualCpp:
        return L"C++ exception";
    case EXCEPTION_ACCESS_VIOLATION:
        return L"access violation";
    case EXCEPTION_STACK_OVERFLOW:
        return L"stack overflow";
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
        return L"division by zero";
    case EXCEPTION_ILLEGAL_INSTRUCTION:
        return L"illegal instruction";
    default:
        return L"exception";
    }
}

/// "MyService.dll+0x1234", by which the symbols find the line.
std::wstring PlaceOf(void* address)
{
    HMODULE module = nullptr;
    wchar_t path[MAX_PATH] = {};
    ::GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        static_cast<const wchar_t*>(address),
        &module);
    if (module == nullptr || ::GetModuleFileNameW(module, path, MAX_PATH) == 0)
    {
        return L"outside of every module";
    }
    const std::wstring file = path;
    const auto offset = static_cast<DWORD>(static_cast<BYTE*>(address) - reinterpret_cast<BYTE*>(module));
    return Basalt::FormatText(L"%s+0x%X", file.substr(file.rfind(L'\\') + 1).c_str(), offset);
}

std::wstring Describe(const Fault& fault)
{
    std::wstring text = NameOf(fault.code);
    if (fault.code != kThrownByGnu && fault.code != kThrownByVisualCpp) // Those are raised in the runtime.
    {
        Basalt::AppendFormat(text, L" (0x%08X) at %s", fault.code, PlaceOf(fault.address).c_str());
    }
    return text;
}

/// Sees each before anybody handles it. On little stack, perhaps: nothing is formatted here.
LONG CALLBACK Remember(EXCEPTION_POINTERS* exception) noexcept
{
    const DWORD code = exception->ExceptionRecord->ExceptionCode;
    if (code >= 0xC0000000 || code == kThrownByGnu) // Others are no errors: debug output, a thread's name.
    {
        t_last = {code, exception->ExceptionRecord->ExceptionAddress};
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

LONG WINAPI TellUncaught(EXCEPTION_POINTERS* exception)
{
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    g_onUncaught(Describe({record.ExceptionCode, record.ExceptionAddress}));
    ::TerminateProcess(::GetCurrentProcess(), record.ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

void Begin(void (*onUncaught)(const std::wstring& fault)) noexcept
{
    g_onUncaught = onUncaught;
    ::AddVectoredExceptionHandler(1, &Remember);
    ::SetUnhandledExceptionFilter(&TellUncaught);
}

std::wstring LastOnThisThread()
{
    return t_last.code == 0 ? std::wstring() : Describe(t_last);
}

} // namespace TxRun::FaultWatch
