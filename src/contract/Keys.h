#pragma once

#include <windows.h>

#include <string>
#include <string_view>

/// @file
/// Where the product keeps what in the registry: for the host that reads it and for the tool that writes it.
/// All keys are below HKEY_LOCAL_MACHINE unless they say otherwise; docs/configuration.md is about what
/// stands there.

namespace Contract
{

/// The product's key, which the host makes a link to the next one.
inline constexpr wchar_t kProductKey[] = L"Software\\Tarvex";
/// The same in the 32-bit view, where everything really is. It exists also before the link does.
inline constexpr wchar_t kProductKey32[] = L"Software\\Wow6432Node\\Tarvex";

/// As the host opens them and as its log shows them: through the link.
inline constexpr wchar_t kHostKey[] = L"SOFTWARE\\Tarvex\\Platform\\TxSvcHost";
inline constexpr wchar_t kLoggingKey[] = L"SOFTWARE\\Tarvex\\Logging";

/// One of the above by the road that does not need the link.
/// @throws std::bad_alloc
[[nodiscard]] inline std::wstring In32BitView(const wchar_t* key)
{
    return kProductKey32 + std::wstring(key).substr(std::wstring_view(kProductKey).size());
}

/// @throws std::bad_alloc
[[nodiscard]] inline std::wstring GroupKey(const std::wstring& hostKey, const std::wstring& group)
{
    return hostKey + L"\\" + group;
}

// Values of the host's key; those of working-set reduction are in HostSettings.h.
inline constexpr wchar_t kInstallDirValue[] = L"InstallDir";
inline constexpr wchar_t kOobeCheckValue[] = L"IsOobeCheckRequired";

/// In a group's key, beside the list of services (the default value) and a CLSID under each service's name.
inline constexpr wchar_t kBucketLimitValue[] = L"WSSOptimalBucketUpperLimit";
/// Below a group's key; its values' names are the services that first-run gating lets pass.
inline constexpr wchar_t kOobeExclusionKey[] = L"OobeExclusionList";

/// What the hosts' events come from in the Windows event log, and the key that says where their texts are.
inline constexpr wchar_t kEventSource[] = L"TxSvHost";
inline constexpr wchar_t kEventSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\TxSvHost";
inline constexpr wchar_t kEventMessageFileValue[] = L"EventMessageFile";
inline constexpr wchar_t kEventTypesValue[] = L"TypesSupported";

/// The key that names a class's module, below HKEY_CLASSES_ROOT.
/// @throws std::bad_alloc
[[nodiscard]] inline std::wstring ServerKey(const std::wstring& clsid)
{
    return L"CLSID\\" + clsid + L"\\InprocServer32";
}

} // namespace Contract
