#pragma once

#include "contract/LogEntry.h"

namespace TxCtl
{

using ETWLogging::LogEntry;

/// Takes what is read of a log or a trace.
class ILogSink
{
public:
    virtual ~ILogSink() = default;

    virtual void Add(LogEntry entry) = 0;
    /// Called after each piece that was read: what was added may be handed on.
    /// @return false to read no further.
    virtual bool EndPiece() = 0;
};

} // namespace TxCtl
