#pragma once

#include <windows.h>

#include <cstdarg>
#include <memory>

#include "logging/LogBuilder.h"
#include "logging/LoggingIdentity.h"
#include "logging/basalt/LoggingHandler.h"
#include "logging/logger/LoggingIf.h"
#include "logging/settings/LogSettingsWatch.h"

namespace ETWLogging
{

/// What the process's logger slot points to: the logger, the handler by which the base library's messages
/// reach it, and the watch that has changed settings take effect in it.
///
/// Threads: one thread sets it up and takes it down; in between any thread may write.
class CLoggerHolder
{
public:
    /// @param bridge borrowed: takes the base library's messages, from Create on.
    /// @param gate borrowed: closed by the logger for levels that nobody wants; null for none.
    explicit CLoggerHolder(Basalt::ILoggingHandler& bridge, CLevelGate* gate = nullptr) noexcept
        : m_bridge(&bridge), m_gate(gate)
    {
    }
    CLoggerHolder(const CLoggerHolder&) = delete;
    CLoggerHolder& operator=(const CLoggerHolder&) = delete;
    ~CLoggerHolder() { UnregisterHandler(); }

    /// Has the builder make a logger and registers the bridge handler. When the builder fails, the holder
    /// stays as it was.
    void Create(CLogBuilderIf& builder, const LoggingIdentity& identity) noexcept;

    /// Cuts the base library's messages off; the logger stays.
    void UnregisterHandler() noexcept;

    /// False without a logger.
    [[nodiscard]] bool IsEnabled(DWORD level) const noexcept;

    /// Formats and writes one message.
    ///
    /// Lengths: the event-tracing logger gets at most kLongestEvent characters; any other logger gets the
    /// whole text up to kLongestWhole characters, and the first kCutLength of a longer one. The two differ on
    /// purpose, and only the event-tracing logger is asked for the level.
    /// @return 0, ERROR_FUNCTION_FAILED without a logger, or the logger's error.
    DWORD Write(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* format,
        va_list arguments) noexcept;

    /// Writes a finished message as it is, whatever its level and length.
    DWORD WriteFinished(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept;

    static constexpr std::size_t kLongestEvent = 2079;
    static constexpr std::size_t kLongestWhole = 4160;
    static constexpr std::size_t kCutLength = 2080;

private:
    void install(std::unique_ptr<CLoggingIf> logger) noexcept;

    Basalt::ILoggingHandler* m_bridge;
    CLevelGate* m_gate;
    std::unique_ptr<CLoggingIf> m_logger;
    CLoggingIf_ex* m_loggerEx = nullptr; ///< m_logger, when it is one of these.
    bool m_isRegistered = false;         ///< The bridge with the base library.
    CLogSettingsWatch m_watch;           ///< Last: its thread uses the logger.
};

} // namespace ETWLogging
