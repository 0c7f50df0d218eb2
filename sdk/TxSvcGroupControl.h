#pragma once

#include <windows.h>
#include <unknwn.h>

#include "TxSvcSubsystem.h"

/// @file
/// How the product's updater stops the service groups that run. TxUpdateClient.h has the other half: what
/// keeps hosts from starting meanwhile.
///
/// All of it crosses processes: TxSvHostPS.dll, registered and signed with one of the product's names,
/// carries the calls. TxSvHost.idl describes the same interfaces for it. docs/group-control.md tells who is
/// admitted, from which account, and how to reach every host; samples/updater does it.

/// Class object that every running host registers (CLSCTX_LOCAL_SERVER); ask it for IID_ITxSvcClassObject,
/// the one creation interface that it has. Its CreateObject answers E_ACCESSDENIED when TxSvHostPS.dll is not
/// trusted.
/// {050813AE-50A9-44C9-8498-14DE61E60D23}
inline constexpr CLSID CLSID_TxSvcSubsystemControlManager = {
    0x050813AE, 0x50A9, 0x44C9, {0x84, 0x98, 0x14, 0xDE, 0x61, 0xE6, 0x0D, 0x23}};

/// {FFBF163F-925A-41C4-82A4-0AC6AE77B9D2}
inline constexpr IID IID_ITxSvcSubsystemControlManager = {
    0xFFBF163F, 0x925A, 0x41C4, {0x82, 0xA4, 0x0A, 0xC6, 0xAE, 0x77, 0xB9, 0xD2}};

/// Control of the service group that one host process runs.
struct ITxSvcSubsystemControlManager : IUnknown
{
    /// Does nothing and returns E_NOTIMPL. The interface is given: without this slot the next method would
    /// move.
    virtual HRESULT STDMETHODCALLTYPE Reserved() = 0;

    /// Stops all services of the group, one after another, and has the host process end about a second later
    /// with exit code 0. Returns when the services have stopped, which takes up to ten seconds for each.
    ///
    /// @param reserved  0; not looked at.
    /// @param processId receives the host's process id; may be null.
    /// @return S_OK for a group without services, which goes on. Otherwise a failure, also when every service
    ///         has stopped: the process ends in any case. A failure of the call itself (an RPC error) means
    ///         that the process ended before it could answer.
    virtual HRESULT STDMETHODCALLTYPE TxStopSvcSubsystem(DWORD reserved, DWORD* processId) = 0;
};
