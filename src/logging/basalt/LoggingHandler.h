#pragma once

#include <windows.h>

namespace Basalt
{

/// Takes the finished messages of the base library's logger (CLogger).
///
/// Threads: any thread may call Handle. Handlers live as long as the process, so nobody deletes one through
/// this interface.
class ILoggingHandler
{
public:
    ILoggingHandler(const ILoggingHandler&) = delete;
    ILoggingHandler& operator=(const ILoggingHandler&) = delete;

    /// @param level 0 nothing, 1 information, 2 error; any other number is unknown.
    /// @param file, function, message borrowed for the call.
    virtual void Handle(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept = 0;

protected:
    constexpr ILoggingHandler() noexcept = default;
    ~ILoggingHandler() = default;
};

} // namespace Basalt
