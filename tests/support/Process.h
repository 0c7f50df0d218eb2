#pragma once

#include <windows.h>

#include <string>

/// Runs a program to its end, without a window, and returns its exit code.
/// @throws std::runtime_error when it cannot be started or has not ended after @p timeoutMs (it is ended
/// then).
DWORD RunProcess(std::wstring commandLine, DWORD timeoutMs = 20000);

/// Raises the number of Wine's next control pipe, as the manager does for a start of its own. A service
/// program that is run by hand then fails at once to connect, instead of waiting for the pipe of a service
/// that still runs.
void SkipControlPipe();
