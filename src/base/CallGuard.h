#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace Basalt
{

/// Calls into code that is not ours (a hosted subsystem, COM's clean-up) and lets no exception out of it:
/// C++ exceptions of any compiler's runtime, access violations and other hardware faults, and a stack
/// overflow as far as Windows can still run the handler.
///
/// What the called code held when it was thrown out of (locks, memory, references) stays as it was.
/// Built with g++, which has no structured exception handling, only C++ exceptions are caught.
/// @param exceptionCode receives the code of an exception that was swallowed; null when nobody asks.
/// @return true when the function returned normally, false when an exception was swallowed.
/// @see https://learn.microsoft.com/windows/win32/debug/structured-exception-handling
[[nodiscard]] bool CallGuarded(
    void (*function)(void* context), void* context, DWORD* exceptionCode = nullptr) noexcept;

/// The code of all C++ exceptions, whatever the compiler that threw them gives to its own.
inline constexpr DWORD kCppExceptionCode = 0xE06D7363;

/// The same for a lambda or another callable. It must not be noexcept: that would end the process first.
template <typename Callable>
[[nodiscard]] bool CallGuarded(Callable&& callable, DWORD* exceptionCode = nullptr) noexcept
{
    using Target = std::remove_reference_t<Callable>;
    static_assert(
        !std::is_nothrow_invocable_v<Target&>, "a noexcept callable ends the process when it throws");
    return CallGuarded(
        [](void* context) { (*static_cast<Target*>(context))(); },
        const_cast<void*>(static_cast<const void*>(std::addressof(callable))),
        exceptionCode);
}

/// What a call comes to that threw: ERROR_INVALID_OPERATION as an HRESULT, 0x800710DD.
inline constexpr HRESULT kCallFailed =
    static_cast<HRESULT>(0x80000000U | (FACILITY_WIN32 << 16) | ERROR_INVALID_OPERATION);

/// The same for a callable that gives an HRESULT.
/// @return it, or kCallFailed.
template <typename Callable>
[[nodiscard]] HRESULT GuardedResult(Callable&& callable, DWORD* exceptionCode = nullptr) noexcept
{
    HRESULT result = kCallFailed;
    return CallGuarded([&result, &callable] { result = callable(); }, exceptionCode) ? result : kCallFailed;
}

} // namespace Basalt
