#pragma once

#include <windows.h>

#include <cstddef>

/// @file
/// What RecordedSubsystem.dll and the driver that has it hosted tell each other, in a section of memory.

inline constexpr wchar_t kRecordSection[] = L"Global\\TxBenchRecord";

/// What a service does.
enum class Behaviour : LONG
{
    Works,       ///< Runs until it is stopped.
    Unloads,     ///< The same, then asks to be unloaded.
    EndsItself,  ///< Stops at once, with an exit code.
    StartFails,  ///< Stops instead of running.
    ClassThrows, ///< In DllGetClassObject.
    ClassCrashes,
    ClassFails,
    ClassNull,
    CreateThrows, ///< In CreateObject.
    CreateCrashes,
    CreateFails,
    CreateNull,
    EarlyThrows, ///< Before any report.
    EarlyCrashes,
    EarlyFails,
    RunningThrows, ///< After the report that it runs.
    RunningCrashes,
    ReleaseThrows, ///< At the end of one that works.
    Count,
};

/// The moments of one start, in units of a FILETIME.
struct StartRecord
{
    LONGLONG threadBegan;
    LONGLONG createBegan;
    LONGLONG createEnded;
    LONGLONG isRunning;
};

inline constexpr std::size_t kMostRecords = 1024;

struct ServiceRecord
{
    volatile LONG behaviour; ///< Of the service that starts next.
    volatile LONG delayMs;   ///< How long each CreateObject takes.
    volatile LONG created;   ///< Number of the records.
    volatile LONG running;
    StartRecord starts[kMostRecords];
};

/// The section: made by the driver, opened by the module. @return null on failure.
inline ServiceRecord* MapServiceRecord() noexcept
{
    const HANDLE section = ::CreateFileMappingW(
        INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(ServiceRecord), kRecordSection);
    return static_cast<ServiceRecord*>(::MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, 0));
}
