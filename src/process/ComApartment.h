#pragma once

#include <windows.h>
#include <objbase.h>

/// COM on the calling thread until the end of the scope.
///
/// Uninitialising runs code of hosted modules, so an exception out of it is swallowed and logged.
/// @see https://learn.microsoft.com/windows/win32/api/combaseapi/nf-combaseapi-coinitializeex
class CComApartment
{
public:
    /// @param model apartment to enter; the host's threads share the multithreaded one.
    explicit CComApartment(COINIT model = COINIT_MULTITHREADED) noexcept;
    ~CComApartment();
    CComApartment(const CComApartment&) = delete;
    CComApartment& operator=(const CComApartment&) = delete;

    /// What CoInitializeEx returned; nothing is uninitialised when it failed.
    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }

private:
    HRESULT m_result;
};
