#pragma once

#include <windows.h>

#include <string>
#include <vector>

/// How a function of the system fails: what it returns, and the last error that it sets.
struct Failure
{
    ULONG64 value;
    DWORD code;
    bool hasCode;
};

/// One to three fitting failures; empty for a function that is not known or cannot fail.
[[nodiscard]] std::vector<Failure> FailuresOf(const std::string& function);
[[nodiscard]] bool CannotFail(const std::string& function);
