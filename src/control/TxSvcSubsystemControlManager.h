#pragma once

#include <windows.h>
#include <objbase.h>

#include <atomic>

#include "TxSvcGroupControl.h"

/// What the product's updater talks to from another process in order to replace files that hosted services
/// hold open: stops the services of the group, whereupon the host process ends.
///
/// The process lives on for about a second after that, so objects of this class are never deleted once they
/// were given out: a client's last Release frees nothing. Threads: any; TxStopSvcSubsystem runs on one of
/// COM's RPC threads.
class CTxSvcSubsystemControlManager final : public ITxSvcSubsystemControlManager
{
public:
    CTxSvcSubsystemControlManager() noexcept = default;
    CTxSvcSubsystemControlManager(const CTxSvcSubsystemControlManager&) = delete;
    CTxSvcSubsystemControlManager& operator=(const CTxSvcSubsystemControlManager&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;
    HRESULT STDMETHODCALLTYPE Reserved() noexcept override;
    HRESULT STDMETHODCALLTYPE TxStopSvcSubsystem(DWORD reserved, DWORD* processId) noexcept override;

    virtual ~CTxSvcSubsystemControlManager() = default;

private:
    std::atomic<ULONG> m_references = 0;
};
