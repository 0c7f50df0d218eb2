#pragma once

#include <windows.h>

#include <string>

/// Throws std::runtime_error with "<operation>: error <number> (<the system's text>)".
[[noreturn]] void ThrowError(const std::wstring& operation, DWORD error);
[[noreturn]] void ThrowError(const std::wstring& text);

/// For the many calls that return a code: throws unless it is 0.
inline void ThrowIfFailed(DWORD error, const std::wstring& operation)
{
    if (error != ERROR_SUCCESS)
    {
        ThrowError(operation, error);
    }
}
