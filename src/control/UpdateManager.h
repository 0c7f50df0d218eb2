#pragma once

#include <windows.h>
#include <unknwn.h>

/// @file
/// What the update manager offers to other components: names, identifiers and the methods that are called.

/// Followed directly by the instance name. The event exists while an update runs; setting it reminds
/// of a restart.
inline constexpr wchar_t kUpdateEventPrefix[] = L"Global\\{834C46D9-6762-4FF9-8279-2C04C8B1162C}";

/// Tells whether an update is being installed; a local server.
inline constexpr CLSID CLSID_TxUpdateClient = {
    0x6525B2DD, 0x4E96, 0x4BAC, {0x90, 0x05, 0x59, 0xD4, 0xCE, 0x17, 0xBC, 0x75}};
inline constexpr IID IID_ITxUpdateClientRot = {
    0x58BB54E8, 0x773C, 0x47FB, {0xAF, 0xB9, 0x51, 0xE6, 0x44, 0xBA, 0xE0, 0x2D}};

struct ITxUpdateClientRot : IUnknown
{
    /// @param installing receives non-zero while an update is being installed.
    virtual HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) = 0;
};
inline constexpr std::size_t kIsInstallingSlot = 3;

/// Cancels a running update; an in-process server.
inline constexpr CLSID CLSID_TxUpdateAgent = {
    0xDA32C9C5, 0x1147, 0x402A, {0xA1, 0x27, 0xE0, 0xE1, 0x69, 0xE9, 0xE9, 0xB4}};
inline constexpr IID IID_ITxUpdateAgent = {
    0x3BFC1A9F, 0xB39C, 0x4B72, {0xA1, 0x21, 0x42, 0xB0, 0xAE, 0x00, 0x03, 0x74}};

struct ITxUpdateAgent : IUnknown
{
    // The agent's other methods: they keep Cancel in its place and are not called from here.
    virtual HRESULT STDMETHODCALLTYPE Unused1() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused2() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Unused5() = 0;

    /// @param instance the update manager's instance name.
    virtual HRESULT STDMETHODCALLTYPE Cancel(BSTR instance) = 0;
};
inline constexpr std::size_t kCancelSlot = 8;
