#pragma once

#include <windows.h>

#include <string>

/// What TestSubsystem.dll does for a service, chosen by the last byte of the CLSID: each behaviour has its
/// own. "Runs" means: reports RUNNING and waits for STOP; "raw" ones report just what is said.
enum class TestBehaviour : BYTE
{
    // TxServiceMain
    WellBehaved = 1,  ///< runs; started with the arguments "exit" and N it stops at once with Win32 error N
    UnloadAfterStop,  ///< runs, then its result is 0xDEADBABE
    StartFails,       ///< stopped with ERROR_NOT_READY (21)
    ThrowEarly,       ///< throws a C++ exception before any report
    ThrowRunning,     ///< the same after reporting RUNNING
    CrashEarly,       ///< access violation before any report
    CrashRunning,     ///< the same after reporting RUNNING
    StackOverflow,    ///< before any report
    FailSilently,     ///< returns E_FAIL without a report
    FailAfterStopped, ///< reports RUNNING, STOPPED with ERROR_NOT_READY (21), and returns E_FAIL
    ReleaseThrows,    ///< runs; the last Release of its object throws
    // CreateObject
    SlowLoad = 0x20, ///< takes kSlowLoadMs and records when (SlowLoadTimes), then runs
    CreateFails,     ///< E_OUTOFMEMORY
    CreateThrows,    ///< a C++ exception
    CreateGivesNull, ///< S_OK and a null interface
    // DllGetClassObject
    ClassFails = 0x40, ///< CLASS_E_CLASSNOTAVAILABLE, as for every CLSID that is not listed here
    ClassThrows,       ///< a C++ exception
    ClassCrashes,      ///< access violation
    ClassRefuses,      ///< E_NOINTERFACE: has an IClassFactory only
};

/// {7E57D11A-5B3C-4C1E-9A60-0000000000BB}, BB being the behaviour.
[[nodiscard]] constexpr CLSID TestClsid(TestBehaviour behaviour) noexcept
{
    return {0x7E57D11A, 0x5B3C, 0x4C1E, {0x9A, 0x60, 0, 0, 0, 0, 0, static_cast<BYTE>(behaviour)}};
}

[[nodiscard]] inline std::wstring TestClsidText(TestBehaviour behaviour)
{
    constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
    const auto number = static_cast<BYTE>(behaviour);
    return std::wstring(L"{7E57D11A-5B3C-4C1E-9A60-0000000000") + kDigits[number / 16] +
           kDigits[number % 16] + L"}";
}

/// File names, beside the test programs.
inline constexpr wchar_t kTestModule[] = L"TestSubsystem.dll";
inline constexpr wchar_t kNoExportModule[] = L"NoExportSubsystem.dll";

/// Key below HKEY_LOCAL_MACHINE where the module leaves records. It writes only where the key exists already,
/// so make it first (CTestKey). Values:
/// - "SlowLoad-<process id>-<thread id>", REG_BINARY, SlowLoadTimes: the last slow load of this thread.
/// - "Unloaded-<process id>", REG_DWORD 1: the module was freed while its process went on.
/// The log controller's double leaves "Stop-<process id>" there, REG_DWORD 1: the process has stopped it.
inline constexpr wchar_t kTestRecordKey[] = L"SOFTWARE\\TxTest";

inline constexpr DWORD kSlowLoadMs = 800;

/// Performance counter at both ends of a slow CreateObject. Loads one at a time do not overlap.
struct SlowLoadTimes
{
    LONGLONG entered;
    LONGLONG left;
};
