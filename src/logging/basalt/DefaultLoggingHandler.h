#pragma once

#include "logging/basalt/LoggingHandler.h"

namespace Basalt
{

/// Where the base library's messages go while no other handler is registered: to the debugger.
/// @see https://learn.microsoft.com/windows/win32/api/debugapi/nf-debugapi-outputdebugstringw
class CDefaultLoggingHandler final : public ILoggingHandler
{
public:
    constexpr CDefaultLoggingHandler() noexcept = default;

    void Handle(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept override;
};

/// The process's one object of this class.
[[nodiscard]] CDefaultLoggingHandler& DefaultLoggingHandler() noexcept;

} // namespace Basalt
