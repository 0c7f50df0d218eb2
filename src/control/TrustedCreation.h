#pragma once

#include <windows.h>

#include <cstdint>

/// Whether the module behind a class object must be trusted before it may create.
enum class CreationTrust : std::uint8_t
{
    Required,
    NotAsked, ///< plain CoCreateInstance
};

/// Creates a COM object of the product, whose registration anybody might have replaced.
///
/// The module that holds the class object's first method must pass the trusted-module check before the class
/// object is asked for anything. For an object in another process that module is its proxy's.
///
/// @param context a CLSCTX value.
/// @param object  set to null first; receives the interface with one reference, to be released under the call
///                guard (Basalt::CForeignReference).
/// @return the creation's result; E_POINTER for a null out-pointer, E_ACCESSDENIED when the module is
///         not trusted or cannot be told, Basalt::kCallFailed when the class object failed badly.
///         Logs nothing.
/// Threads: any that has initialised COM.
[[nodiscard]] HRESULT CreateTrustedObject(
    REFCLSID clsid,
    DWORD context,
    REFIID iid,
    void** object,
    CreationTrust trust = CreationTrust::Required) noexcept;
