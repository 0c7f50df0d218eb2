#pragma once

#include <windows.h>

#include "TxSvcSubsystem.h"

/// The loaded subsystem of one running service: its interface and its module.
///
/// The interface is released with the object. The module is not freed with it: a subsystem may have left
/// threads or objects behind that run its code, so it stays loaded unless the subsystem asked to be unloaded.
/// Threads: the service's own.
class CSubsystemHolder
{
public:
    CSubsystemHolder() noexcept = default;
    ~CSubsystemHolder() { ReleaseInterface(); }
    CSubsystemHolder(const CSubsystemHolder&) = delete;
    CSubsystemHolder& operator=(const CSubsystemHolder&) = delete;

    [[nodiscard]] ITxSvcSubsystem* Interface() const noexcept { return m_interface; }
    [[nodiscard]] HMODULE Module() const noexcept { return m_module; }

    /// Takes over one reference. What was held before must have been released.
    void SetInterface(ITxSvcSubsystem* subsystem) noexcept { m_interface = subsystem; }
    /// Takes over the handle, freeing another one that was held.
    void SetModule(HMODULE module) noexcept;

    /// Releases the interface, if any; an exception out of it is swallowed and logged.
    /// @return the exception's code, else 0.
    DWORD ReleaseInterface() noexcept;
    void UnloadModule() noexcept;

private:
    ITxSvcSubsystem* m_interface = nullptr;
    HMODULE m_module = nullptr;
};
