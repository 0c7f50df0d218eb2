#pragma once

#include <string>

#include "txsvcctl/log/LogSink.h"

namespace TxCtl
{

/// The events of a trace that are no messages of hosts.
struct LeftOutEvents
{
    unsigned others = 0;  ///< of other providers
    unsigned damaged = 0; ///< that could not be read
};

/// Hands out the messages of an event trace file (.etl), the oldest first.
/// @throws CToolError, and what the sink throws
/// @see https://learn.microsoft.com/windows/win32/api/evntrace/nf-evntrace-processtrace
LeftOutEvents ReadTrace(const std::wstring& path, ILogSink& sink);

} // namespace TxCtl
