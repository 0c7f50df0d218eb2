#pragma once

#include <windows.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "support/ImportPatch.h"

/// A service control manager that exists in this executable's imports only, together with the time that it
/// takes: Sleep moves what GetTickCount64 says. One object at a time.
///
///     CFakeScm scm;
///     scm.services[L"a"] = {.states = {Stopped(), Running(7)}};
class CFakeScm
{
public:
    struct Service
    {
        DWORD openError = 0;
        DWORD queryError = 0;
        std::deque<DWORD> errors = {}; ///< Of StartServiceW and ControlService, one a call; then 0.
        /// One for each look at it, that of ControlService included. The last one stays.
        std::deque<SERVICE_STATUS_PROCESS> states = {State(SERVICE_STOPPED)};
    };

    [[nodiscard]] static SERVICE_STATUS_PROCESS State(
        DWORD state, DWORD processId = 0, DWORD exitCode = 0, DWORD ownExitCode = 0);

    CFakeScm();
    CFakeScm(const CFakeScm&) = delete;
    CFakeScm& operator=(const CFakeScm&) = delete;

    std::map<std::wstring, Service> services; ///< What is not there does not exist.
    DWORD error = 0;                          ///< Of OpenSCManagerW.
    DWORD managerAccess = 0;                  ///< Asked for last, as the next.
    DWORD serviceAccess = 0;
    std::vector<std::wstring> calls; ///< Services started and stopped.
    std::vector<DWORD> sleeps;
    ULONGLONG now = 0; ///< In milliseconds.
    int opened = 0;    ///< Handles opened and not closed.

private:
    CImportPatch m_patches[9];
};
