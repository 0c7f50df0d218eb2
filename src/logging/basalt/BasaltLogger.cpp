#include "logging/basalt/BasaltLogger.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cwchar>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "base/Text.h"
#include "logging/basalt/DefaultLoggingHandler.h"

namespace Basalt
{

namespace
{

constexpr DWORD kError = 2;
constexpr wchar_t kFile[] = L"Logging\\internal_logging";
constexpr wchar_t kRegister[] = L"Basalt::CLogger::RegisterHandler";
constexpr wchar_t kUnregister[] = L"Basalt::CLogger::UnregisterHandler";

// Atomic only so that a thread that logs during shutdown reads the old or the new value.
constinit std::atomic<ILoggingHandler*> g_handler = nullptr;

/// The system's text for an error, for a log message: without memory there is none.
std::wstring TextOfError(DWORD error) noexcept
{
    try
    {
        return SystemMessage(error);
    }
    catch (const std::exception&)
    {
        return {};
    }
}

/// How the messages print a handler: the low half of its address.
DWORD Number(const ILoggingHandler* handler) noexcept
{
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(handler));
}

void LogMismatch(DWORD line, const ILoggingHandler* requested, const ILoggingHandler* registered) noexcept
{
    CLogger::Log(
        kError,
        kFile,
        kUnregister,
        line,
        L"%s: Failed to Unregister Logging handler (requested handler 0x%08X != registered handler 0x%08X)",
        TextOfError(ERROR_INVALID_STATE).c_str(),
        Number(requested),
        Number(registered));
}

} // namespace

void CLogger::Log(
    DWORD level,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    const wchar_t* format,
    ...) noexcept
{
    ILoggingHandler* handler = g_handler;
    if (handler == nullptr)
    {
        static_cast<void>(RegisterHandler(&DefaultLoggingHandler()));
        handler = g_handler;
        if (handler == nullptr)
        {
            return;
        }
    }

    va_list arguments{};
    va_start(arguments, format);
    va_list measured{};
    va_copy(measured, arguments);
    const int length = ::_vscwprintf(format, measured);
    va_end(measured);
    const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
    const std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[size + 1]);
    if (text != nullptr)
    {
        ::_vsnwprintf(text.get(), size, format, arguments);
        text[size] = L'\0';
        handler->Handle(level, file, function, line, text.get());
    }
    else
    {
        handler->Handle(kError, file, function, line, L"General memory-allocation failure in Basalt logger.");
    }
    va_end(arguments);
}

// The line numbers below are fixed: whoever searches a log for one of these messages searches for them too.

DWORD CLogger::RegisterHandler(ILoggingHandler* handler) noexcept
{
    if (handler == nullptr)
    {
        const std::wstring text = TextOfError(ERROR_INVALID_PARAMETER);
        Log(kError, kFile, kRegister, 57, L"%s: Cannot Register (NULL) handler", text.c_str());
        return ERROR_INVALID_PARAMETER;
    }
    ILoggingHandler* const current = g_handler;
    if (current == nullptr || current == handler || current == &DefaultLoggingHandler())
    {
        g_handler = handler;
        return ERROR_SUCCESS;
    }
    Log(kError,
        kFile,
        kRegister,
        67,
        L"%s: Registered Logging Handler 0x%08X cannot be replaced with 0x%08X",
        TextOfError(ERROR_INVALID_STATE).c_str(),
        Number(current),
        Number(handler));
    return ERROR_INVALID_STATE;
}

DWORD CLogger::UnregisterHandler(ILoggingHandler* handler) noexcept
{
    if (handler == nullptr)
    {
        const std::wstring text = TextOfError(ERROR_INVALID_PARAMETER);
        Log(kError, kFile, kUnregister, 92, L"%s: Cannot Unregister (NULL) handler", text.c_str());
        return ERROR_INVALID_PARAMETER;
    }
    ILoggingHandler* const current = g_handler;
    if (current == handler)
    {
        g_handler = nullptr;
        return ERROR_SUCCESS;
    }
    if (current == nullptr)
    {
        g_handler = handler; // Just long enough for its owner to learn of it.
        Log(kError,
            kFile,
            kUnregister,
            102,
            L"%s: Request to Unregister Logging handler 0x%08X, but none are registered",
            TextOfError(ERROR_INVALID_STATE).c_str(),
            Number(handler));
        g_handler = nullptr;
        return ERROR_INVALID_STATE;
    }
    LogMismatch(110, handler, current);
    g_handler = handler; // Both owners learn of the mismatch.
    LogMismatch(115, handler, current);
    g_handler = current;
    return ERROR_INVALID_STATE;
}

} // namespace Basalt
