#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "TxLogController.h"
#include "contract/LogEntry.h"

/// @file
/// The event that the event-tracing logger hands to TraceEvent: an EVENT_TRACE_HEADER with
/// WNODE_FLAG_TRACED_GUID | WNODE_FLAG_USE_MOF_PTR, followed by one MOF_FIELD for each EventField. In the
/// trace the fields stand one after the other, without padding. sdk/TxSvHostEvents.mof describes them to
/// others.

namespace ETWLogging
{

/// The provider that a session enables.
inline constexpr GUID kEventProvider = TxSdk::kLogEventProvider;

/// Class of the message event (EVENT_TRACE_HEADER::Guid).
inline constexpr GUID kMessageEventClass = {
    0xA94E6F12, 0x08D3, 0x4C5B, {0xB1, 0x7E, 0x52, 0xD9, 0x30, 0x6A, 0xC4, 0x8D}};

/// Type of the message event (EVENT_TRACE_HEADER::Class.Type); Class.Version is kMessageEventVersion.
inline constexpr UCHAR kMessageEventType = 1;
inline constexpr USHORT kMessageEventVersion = 1;
// Class.Level is Windows' number for the level, 1 (critical) to 5 (verbose), or 0 for a level without a name.

/// The fields of a message event, in their order.
enum class EventField : std::uint8_t
{
    Level,     ///< ULONG, a LogLevel; LogInformation2 (6) travels as LogInformation (3)
    File,      ///< UTF-16 with terminator, as all texts here
    Function,  ///< text
    Line,      ///< ULONG
    Group,     ///< text
    ProcessId, ///< ULONG
    ThreadId,  ///< ULONG
    Message,   ///< text
    Count,
};

inline constexpr std::size_t kEventFieldCount = static_cast<std::size_t>(EventField::Count);

/// What TraceEvent reads: header and fields in one block.
struct MessageEvent
{
    EVENT_TRACE_HEADER header;
    MOF_FIELD fields[kEventFieldCount];
};

/// Takes the fields out of a message event's data, where they stand one after the other without padding.
/// @param data need not be aligned.
/// @return nothing when the data ends too early, a text has no terminator, or something is left over. The
///         time stands in the event's header, not in its data.
[[nodiscard]] std::optional<LogEntry> DecodeMessageEvent(const BYTE* data, std::size_t size);

} // namespace ETWLogging
