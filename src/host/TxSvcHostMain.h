#pragma once

/// The process from its entry to its exit code: logging, the one-shot switch "/startservices", the banner,
/// the registry view link, and the service group's whole run.
///
/// @return the process's exit code: that of CTxSvcHost::Start, or ERROR_OUTOFMEMORY (14) after everything was
/// undone.
[[nodiscard]] int TxSvcHostMain(int argc, wchar_t** argv);
