#pragma once

#include "logging/basalt/LoggingHandler.h"

namespace ETWLogging
{

/// Routes the base library's messages into the process's logger. Without one they are dropped; they never
/// bring it into being.
class CBasaltLogHandler final : public Basalt::ILoggingHandler
{
public:
    constexpr CBasaltLogHandler() noexcept = default;

    void Handle(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept override;
};

/// The process's one bridge.
[[nodiscard]] CBasaltLogHandler& BasaltLogHandler() noexcept;

} // namespace ETWLogging
