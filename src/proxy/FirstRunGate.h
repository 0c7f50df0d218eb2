#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>
#include <string>

/// Class of the first-run service's configuration object: {0F352565-FD06-467A-A971-595D03388658}
inline constexpr CLSID CLSID_OobeConfiguration = {
    0x0F352565, 0xFD06, 0x467A, {0xA9, 0x71, 0x59, 0x5D, 0x03, 0x38, 0x86, 0x58}};

/// {4D7EEFF6-CDE2-4980-A37B-858FEA7E8D65}
inline constexpr IID IID_IOobeConfiguration = {
    0x4D7EEFF6, 0xCDE2, 0x4980, {0xA3, 0x7B, 0x85, 0x8F, 0xEA, 0x7E, 0x8D, 0x65}};

/// What this host needs of that object.
struct IOobeConfiguration : IUnknown
{
    /// @param state 65535 when first-run setup has enabled all services, less while it has not.
    /// @param error 0 when the state was read; decides over the returned HRESULT.
    virtual HRESULT STDMETHODCALLTYPE GetServiceEnabledState(USHORT* state, DWORD* error) = 0;
};

/// Holds the group's services back until the product's first-run setup has enabled them.
///
/// Once enabled, the check is off for good, here and in the configuration. Whenever the state cannot be read,
/// services run.
/// Threads: service threads, without a lock: two that check at once both read the state, with the same
/// result.
class CFirstRunGate
{
public:
    /// True when the service may run now.
    [[nodiscard]] bool shouldExecuteService(const std::wstring& name);

private:
    [[nodiscard]] bool areServicesEnabledByOobe() noexcept;

    std::atomic<bool> m_bOobeCheck = true; ///< false for good once services are enabled
};
