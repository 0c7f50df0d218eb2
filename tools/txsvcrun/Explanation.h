#pragma once

#include <windows.h>

#include <string>

/// Failures in words, with what to do about them.
namespace TxRun
{

/// Why a module could not be loaded, or its class not be created. Reads the file; may load what it imports.
/// @param result that of CTxSvcHostProxy::LoadSubsystem.
/// @param clsid in the registry's form.
[[nodiscard]] std::wstring ExplainLoad(HRESULT result, const std::wstring& path, const std::wstring& clsid);

/// What an exit code of a service means where that is not its own affair; empty otherwise.
[[nodiscard]] std::wstring ExplainExitCode(DWORD code);

} // namespace TxRun
