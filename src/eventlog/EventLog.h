#pragma once

#include <windows.h>

/// @file
/// The few things that an administrator who has never heard of the host's own log must be told, in the
/// Windows event log. EventMessages.mc has the texts, docs/logging.md says when each is written.
///
/// An event that cannot be written is lost, and nobody is told. Nothing is held between two events. Those of
/// services and modules are written before the function returns, which calls the event log's service: report
/// to the service control manager first. Those of groups are written by a thread of the process's pool.
/// Threads: any.
namespace EventLog
{

/// Why a service does not run.
struct Failure
{
    DWORD code = ERROR_FUNCTION_FAILED; ///< A Win32 error or an HRESULT.
    DWORD exceptionCode = 0;            ///< When it was an exception; the code does not count then.
};

/// Failed, or crashed if it was by an exception.
void ServiceFailed(const wchar_t* service, const Failure& failure) noexcept;

/// @param path    of the module; null or empty when nobody knows it.
/// @param verdict of the trusted-module check.
void NotTrusted(const wchar_t* path, DWORD verdict) noexcept;

/// Says once for the process that its group has started, a second later: the first moments belong to the
/// services.
/// @param group copied, as in the next one.
void GroupRuns(const wchar_t* group) noexcept;

/// While the answer to the updater is on its way, which gives the pool a second.
void GroupStoppedForUpdate(const wchar_t* group) noexcept;

} // namespace EventLog
