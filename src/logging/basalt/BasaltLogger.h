#pragma once

#include <windows.h>

#include "logging/basalt/LoggingHandler.h"

namespace Basalt
{

/// The base library's own small logging channel: one handler takes every message. While the process logger
/// lives, that is the bridge to it (ETWLogging::CBasaltLogHandler).
///
/// Threads: any thread may log. Handlers are registered and unregistered during start-up and shutdown, when
/// one thread runs: the slot has no lock.
class CLogger
{
public:
    CLogger() = delete;

    /// Formats and hands the text to the handler, to the default one when none is registered.
    /// @param level 0 nothing, 1 information, 2 error.
    /// @param format a wide printf format; "%s" takes a wide string.
    static void Log(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* format,
        ...) noexcept;

    /// @param handler borrowed; must live until it is unregistered.
    /// @return 0; ERROR_INVALID_PARAMETER for null; ERROR_INVALID_STATE (5023) when another handler than the
    ///         default one is registered. Failures are logged.
    static DWORD RegisterHandler(ILoggingHandler* handler) noexcept;

    /// @return 0; ERROR_INVALID_PARAMETER for null; ERROR_INVALID_STATE (5023) when the handler is not the
    ///         registered one. Failures are logged.
    static DWORD UnregisterHandler(ILoggingHandler* handler) noexcept;
};

} // namespace Basalt
