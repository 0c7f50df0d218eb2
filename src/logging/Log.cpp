#include "logging/Log.h"

#include <cstdarg>
#include <memory>
#include <new>
#include <utility>

#include "logging/BasaltLogHandler.h"
#include "logging/LogBuilder.h"
#include "logging/LoggerHolder.h"
#include "logging/LoggerSlot.h"

namespace ETWLogging
{

namespace
{

constinit LoggingIdentity g_identity;
constinit CLogBuilderIf* g_builder = nullptr; ///< Null for the default one.
constinit INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;

/// Nothing in here may log: the run-once guard would wait for itself.
BOOL CALLBACK CreateLogger(INIT_ONCE* /*once*/, void* /*parameter*/, void** /*context*/) noexcept
{
    std::unique_ptr<CLoggerHolder> holder(new (std::nothrow)
                                              CLoggerHolder(BasaltLogHandler(), &Detail::g_levelGate));
    if (holder != nullptr)
    {
        holder->Create(g_builder != nullptr ? *g_builder : DefaultLogBuilder(), g_identity);
        ProcessLoggerSlot().Publish(std::move(holder));
    }
    return TRUE; // Also without a logger: one attempt, and after that logging is silently off.
}

void EnsureLogger() noexcept
{
    static_cast<void>(::InitOnceExecuteOnce(&g_once, &CreateLogger, nullptr, nullptr));
}

} // namespace

void SetLoggingIdentity(const LoggingIdentity& identity) noexcept
{
    g_identity = identity;
}

LoggingIdentity GetLoggingIdentity() noexcept
{
    return g_identity;
}

void SetLogBuilder(CLogBuilderIf& builder) noexcept
{
    g_builder = &builder;
}

bool LogIsEnabled(DWORD level) noexcept
{
    EnsureLogger();
    const CLoggerSlot::CUse use(ProcessLoggerSlot());
    return use.Get() != nullptr && use.Get()->IsEnabled(level);
}

DWORD LogWriteUnchecked(
    DWORD level,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    const wchar_t* format,
    ...) noexcept
{
    EnsureLogger();
    const CLoggerSlot::CUse use(ProcessLoggerSlot());
    if (use.Get() == nullptr)
    {
        return ERROR_SUCCESS;
    }
    va_list arguments{};
    va_start(arguments, format);
    const DWORD status = use.Get()->Write(level, file, function, line, format, arguments);
    va_end(arguments);
    return status;
}

} // namespace ETWLogging
