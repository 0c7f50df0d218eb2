#pragma once

#include <windows.h>
#include <oleauto.h>
#include <unknwn.h>

#include <cstddef>

#include "TxUpdateClient.h"

/// @file
/// What the host asks of the update manager: the update client, of which TxUpdateClient.h tells its author
/// everything, and the update agent.

inline constexpr std::size_t kIsInstallingSlot = 3;

/// Cancels a running update; an in-process server.
inline constexpr CLSID CLSID_TxUpdateAgent = {
    0xDA32C9C5, 0x1147, 0x402A, {0xA1, 0x27, 0xE0, 0xE1, 0x69, 0xE9, 0xE9, 0xB4}};
inline constexpr IID IID_ITxUpdateAgent = {
    0x3BFC1A9F, 0xB39C, 0x4B72, {0xA1, 0x21, 0x42, 0xB0, 0xAE, 0x00, 0x03, 0x74}};

/// The update manager's own interface, given as it is: of its methods only the sixth is known here. The five
/// in front of it keep it in its place and must never be called, since what they take is not known.
struct ITxUpdateAgent : IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE Unused1() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused2() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused5() = 0;

    /// @param instance the update manager's instance name.
    virtual HRESULT STDMETHODCALLTYPE Cancel(BSTR instance) = 0;
};
inline constexpr std::size_t kCancelSlot = 8;
