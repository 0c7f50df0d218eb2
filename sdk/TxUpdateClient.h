#pragma once

#include <windows.h>
#include <unknwn.h>

#include "TxSvcSubsystem.h"

/// @file
/// What the shared service host and the product's update client agree on: a host that starts asks the client
/// whether an update is being installed, and if so ends at once, before it opens any file of the product.
///
/// An update client is a process that, as long as an update is worked on,
/// 1. has a class object registered: CoRegisterClassObject(CLSID_TxUpdateClient, ..., CLSCTX_LOCAL_SERVER,
///    REGCLS_MULTIPLEUSE, ...). It is asked for IID_ITxSvcClassObject and creates the ITxUpdateClientRot;
/// 2. holds the event kTxUpdateEventPrefix + kTxUpdateDefaultInstance. It is made last and closed first:
///    without it hosts ask nobody, with it and without a class object each logs an error.
///
/// The question crosses processes: TxSvHostPS.dll, registered and signed with one of the product's names,
/// carries it. TxSvHost.idl describes the interfaces for it. The host checks the signature of this DLL, not
/// that of the client. docs/update-client.md tells the rest, samples/update_client is one.

/// The event's name up to the instance's name, which follows directly.
///
/// That the event exists and the host may open it (SYNCHRONIZE | EVENT_MODIFY_STATE) says that an update is
/// worked on; its state says nothing to a host. Other components of the product set it to remind of a restart
/// of the machine, so an auto-reset event that is not signalled at first suits best.
inline constexpr wchar_t kTxUpdateEventPrefix[] = L"Global\\{834C46D9-6762-4FF9-8279-2C04C8B1162C}";

/// The instance that hosts look for. Names are case-sensitive.
inline constexpr wchar_t kTxUpdateDefaultInstance[] = L"default";

/// {6525B2DD-4E96-4BAC-9005-59D4CE17BC75}
inline constexpr CLSID CLSID_TxUpdateClient = {
    0x6525B2DD, 0x4E96, 0x4BAC, {0x90, 0x05, 0x59, 0xD4, 0xCE, 0x17, 0xBC, 0x75}};

/// {58BB54E8-773C-47FB-AFB9-51E644BAE02D}
inline constexpr IID IID_ITxUpdateClientRot = {
    0x58BB54E8, 0x773C, 0x47FB, {0xAF, 0xB9, 0x51, 0xE6, 0x44, 0xBA, 0xE0, 0x2D}};

/// The update client, as hosts see it. Each makes one object, asks it once and releases it.
struct ITxUpdateClientRot : IUnknown
{
    /// Called at the start of each host's process, by several at once when the machine starts. A client in a
    /// multithreaded apartment gets the calls on COM's threads, any number at a time.
    ///
    /// Answer at once, and start or stop no service in here: the host waits without a limit, and the start of
    /// its service with it.
    ///
    /// @param installing receives non-zero while an update is being installed.
    /// @return a failure reads as "no", whatever @p installing holds; the host logs it and starts its
    /// services.
    virtual HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) = 0;
};
