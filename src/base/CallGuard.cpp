#include "base/CallGuard.h"

#include <windows.h>
#include <malloc.h>

namespace Basalt
{

namespace
{

/// Stack that Windows keeps back on this thread so that the handler still runs after a stack overflow.
constexpr ULONG kStackReserveBytes = 16 * 1024;

/// The inner layer: C++ exceptions. In a function of its own, since one function cannot hold both kinds of
/// handlers, and not noexcept, which would end the process before the outer layer sees a hardware fault.
__declspec(noinline) bool CallCatchingCpp(
    void (*function)(void* context), void* context, DWORD& exceptionCode)
{
    try
    {
        function(context);
        return true;
    }
    catch (...)
    {
        exceptionCode = kCppExceptionCode;
        return false;
    }
}

#if defined(__clang__) || defined(_MSC_VER)

int KeepCode(DWORD code, DWORD& kept)
{
    kept = code; // Valid in the filter only.
    return EXCEPTION_EXECUTE_HANDLER;
}

/// The outer layer: everything else. It lets nothing out, yet must not be noexcept: clang would then unwind
/// with the C++ rules only and end the process on a hardware fault.
bool CallCatchingAll(void (*function)(void* context), void* context, DWORD& exceptionCode)
{
    bool returned = false;
    __try
    {
        returned = CallCatchingCpp(function, context, exceptionCode);
    }
    __except (KeepCode(GetExceptionCode(), exceptionCode))
    {
        returned = false;
    }
    if (exceptionCode == EXCEPTION_STACK_OVERFLOW)
    {
        // Puts the guard page back; without it the next overflow on this thread ends the process.
        static_cast<void>(::_resetstkoflw());
    }
    return returned;
}

#endif

} // namespace

bool CallGuarded(void (*function)(void* context), void* context, DWORD* exceptionCode) noexcept
{
    ULONG reserve = kStackReserveBytes;
    ::SetThreadStackGuarantee(&reserve); // Lasts for the thread; asking again changes nothing.
    DWORD code = 0;
#if defined(__clang__) || defined(_MSC_VER)
    const bool returned = CallCatchingAll(function, context, code);
#else
    const bool returned = CallCatchingCpp(function, context, code);
#endif
    if (exceptionCode != nullptr)
    {
        *exceptionCode = code;
    }
    return returned;
}

} // namespace Basalt
