#pragma once

#include <windows.h>

namespace ETWLogging
{

/// What the process logger is created with, read once, at the first logging call.
struct LoggingIdentity
{
    void* context = nullptr;             ///< null in this program
    const wchar_t* group = L"_no_group"; ///< borrowed: a literal
    DWORD context2 = 0;                  ///< zero in this program
    const wchar_t* host = L"_no_host";   ///< borrowed: a literal, or null
    DWORD mechanismOverride = 0;         ///< 1 forces the file logger
};

} // namespace ETWLogging
