#pragma once

#include <windows.h>

#include <cstddef>

/// Answers the questions that other components have for the update manager, and passes requests on to it.
///
/// The object holds the name of the update manager's instance and nothing else: make one for a query. Its
/// operations keep this order, which other components of the product rely on.
///
/// Every failure is logged.
/// Threads: an object belongs to one thread at a time; CancelUpdate wants COM initialised.
class CTxUpdateMgr_Helper
{
public:
    /// Characters of an instance name, its terminator included.
    static constexpr std::size_t kInstanceCapacity = 260;

    /// For the instance "default".
    ///
    /// Replaces the process's logging identity: a process whose first log line comes after this logs under
    /// the group "UPDMGR". Nothing puts the old one back, and once there is a logger nothing reads it.
    CTxUpdateMgr_Helper() noexcept;

    /// Asks the update agent to cancel the running update.
    /// @return the agent's result, or why it could not be created (TrustedCreation.h).
    /// @throws std::bad_alloc when there is no memory for the instance name.
    virtual HRESULT CancelUpdate();

    /// The same with the outcome as a flag.
    /// @param cancelled receives 1 when the agent took the request, else 0.
    /// @return CancelUpdate's result; E_POINTER for a null pointer.
    /// @throws std::bad_alloc as CancelUpdate
    virtual HRESULT CancelUpdate2(BOOL* cancelled);

    /// @param running receives 1 while the update manager works on an update, else 0.
    /// @return S_OK; E_POINTER for a null pointer.
    virtual HRESULT IsUpdateRunning(BOOL* running) noexcept;

    /// @param phase receives the running update's phase, 0 when it cannot be read; untouched when none runs.
    /// @return S_OK; E_POINTER for a null pointer.
    virtual HRESULT IsUpdateRunning2(BOOL* running, DWORD* phase) noexcept;

    /// @param pending receives 1 while the update waits for a restart of the machine, else 0.
    /// @return S_OK; E_POINTER for a null pointer.
    virtual HRESULT IsRestartPending(BOOL* pending) noexcept;

    /// Lets the update manager remind the user of the restart.
    /// @return S_OK; E_FAIL when the update manager does not run.
    virtual HRESULT RemindRestart() noexcept;

    /// Chooses another instance. Names are case-sensitive.
    /// @return false, and no change, when the name is null or does not fit.
    [[nodiscard]] bool SetInstance(const wchar_t* name) noexcept;

private:
    [[nodiscard]] HANDLE openEvent() const noexcept;

    wchar_t m_instance[kInstanceCapacity] = L"default";
};
