#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

#include "base/Text.h"
#include "support/Narrow.h"

[[noreturn]] inline void ThrowError(const std::wstring& text)
{
    throw std::runtime_error(Narrow(text));
}

/// "<operation>: error <number> (<the system's text>)"
[[noreturn]] inline void ThrowError(const std::wstring& operation, DWORD error)
{
    ThrowError(
        operation + L": error " + std::to_wstring(error) + L" (" + Basalt::SystemMessage(error) + L")");
}

/// For the many calls that return a code: throws unless it is 0.
inline void ThrowIfFailed(DWORD error, const std::wstring& operation)
{
    if (error != ERROR_SUCCESS)
    {
        ThrowError(operation, error);
    }
}
