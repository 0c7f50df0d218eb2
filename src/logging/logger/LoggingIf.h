#pragma once

#include <windows.h>

#include "contract/LogLevels.h"
#include "logging/logger/LevelGate.h"

namespace ETWLogging
{

/// What every logger can do. The interface is given: all operations keep their places, also those that
/// nothing in this product calls (Flush, the getters, most of what sets the logger up).
///
/// Threads: any thread may call Start, Log and IsLevelEnabled; the other operations are for the one thread
/// that sets the logger up, before it is published, unless they say otherwise.
/// Errors: 0 or a Win32 error code; no operation throws.
class CLoggingIf
{
public:
    CLoggingIf() noexcept = default;
    CLoggingIf(const CLoggingIf&) = delete;
    CLoggingIf& operator=(const CLoggingIf&) = delete;
    virtual ~CLoggingIf() = default;

    /// @param group, host borrowed for the call; host may be null.
    virtual DWORD Initialize(
        const wchar_t* group, DWORD context2, const wchar_t* host, DWORD reserved) noexcept = 0;

    /// Makes the logger ready on first use; later calls cost next to nothing.
    virtual DWORD Start() noexcept = 0;

    // Configuration and session of the logger itself; the facade does not use them.
    virtual DWORD Stop() noexcept = 0; ///< Ends what Start began; Start may be called again.
    virtual DWORD Flush() noexcept = 0;
    [[nodiscard]] virtual bool IsStarted() const noexcept = 0;
    [[nodiscard]] virtual const wchar_t* GetGroup() const noexcept = 0;
    [[nodiscard]] virtual const wchar_t* GetHost() const noexcept = 0; ///< Empty when none was given.
    [[nodiscard]] virtual DWORD GetProcessId() const noexcept = 0;

    /// Writes one finished message.
    virtual DWORD Log(
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        DWORD level,
        const wchar_t* message) noexcept = 0;

    /// Nonzero when a message of that level is to be written.
    [[nodiscard]] virtual DWORD IsLevelEnabled(DWORD level) const noexcept = 0;

    // Threshold, option word and rotation may be changed at any time, by any thread.
    virtual void SetThreshold(DWORD level) noexcept = 0;
    [[nodiscard]] virtual DWORD GetThreshold() const noexcept = 0;
    virtual void SetOptions(DWORD options) noexcept = 0; ///< LogOption bits.
    [[nodiscard]] virtual DWORD GetOptions() const noexcept = 0;
    virtual DWORD SetApplicationTag(const wchar_t* tag) noexcept = 0;
    [[nodiscard]] virtual const wchar_t* GetApplicationTag() const noexcept = 0;

    /// Called once right after a successful Initialize or InitializeEx.
    virtual void Activate() noexcept = 0;

    // Where a logger that writes to a file puts it; ERROR_NOT_SUPPORTED or empty for one that does not.
    virtual DWORD SetFolder(const wchar_t* folder) noexcept = 0;
    [[nodiscard]] virtual const wchar_t* GetFolder() const noexcept = 0;
    virtual DWORD SetFileName(const wchar_t* name) noexcept = 0;
    [[nodiscard]] virtual const wchar_t* GetFileName() const noexcept = 0;
    virtual DWORD SetRotation(DWORD entriesPerFile, DWORD oldFileCount) noexcept = 0;
    virtual DWORD SetMutexEnabled(bool enabled) noexcept = 0;
};

/// A logger that also takes the process's context and passes the level first.
class CLoggingIf_ex : public CLoggingIf
{
public:
    virtual DWORD InitializeEx(
        void* context,
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD reserved) noexcept = 0;

    virtual DWORD LogEx(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept = 0;

    /// Has the logger close the gate, from its start on, for the levels that nobody wants at the time.
    /// @param gate borrowed: outlives the logger, which leaves it open.
    virtual void SetLevelGate(CLevelGate* gate) noexcept = 0;
};

} // namespace ETWLogging
