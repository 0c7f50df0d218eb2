#include "logging/LoggerHolder.h"

#include <cwchar>
#include <exception>
#include <string>
#include <utility>

#include "base/Text.h"
#include "logging/basalt/BasaltLogger.h"

namespace ETWLogging
{

void CLoggerHolder::Create(CLogBuilderIf& builder, const LoggingIdentity& identity) noexcept
{
    std::unique_ptr<CLoggingIf> logger;
    auto* const builderEx = dynamic_cast<CLogBuilderIf_ex*>(&builder);
    const bool built = builderEx != nullptr && builderEx->BuildEx(
                                                   identity.context,
                                                   identity.group,
                                                   identity.context2,
                                                   identity.host,
                                                   identity.mechanismOverride,
                                                   logger,
                                                   nullptr);
    if (built ||
        builder.Build(
            identity.group, identity.context2, identity.host, identity.mechanismOverride, logger, nullptr))
    {
        install(std::move(logger));
    }
}

void CLoggerHolder::install(std::unique_ptr<CLoggingIf> logger) noexcept
{
    m_watch.Stop();
    m_loggerEx = dynamic_cast<CLoggingIf_ex*>(logger.get());
    m_logger = std::move(logger);
    if (m_loggerEx != nullptr)
    {
        m_loggerEx->SetLevelGate(m_gate);
    }
    // Otherwise the base library keeps the handler that it has; that is logged there.
    m_isRegistered = Basalt::CLogger::RegisterHandler(m_bridge) == ERROR_SUCCESS || m_isRegistered;
    if (const auto* const follower = dynamic_cast<IFollowsSettings*>(m_logger.get()))
    {
        m_watch.Start(*m_logger, follower->GetSettings());
    }
}

void CLoggerHolder::UnregisterHandler() noexcept
{
    if (std::exchange(m_isRegistered, false))
    {
        static_cast<void>(Basalt::CLogger::UnregisterHandler(m_bridge));
    }
}

bool CLoggerHolder::IsEnabled(DWORD level) const noexcept
{
    return m_logger != nullptr && m_logger->IsLevelEnabled(level) != 0;
}

DWORD CLoggerHolder::Write(
    DWORD level,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    const wchar_t* format,
    va_list arguments) noexcept
try
{
    if (m_logger == nullptr)
    {
        return ERROR_FUNCTION_FAILED;
    }
    const DWORD status = m_logger->Start();
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    if (m_loggerEx != nullptr)
    {
        if (m_loggerEx->IsLevelEnabled(level) != 0)
        {
            wchar_t text[kLongestEvent + 1] = {}; // Zero-filled: a text that is cut gets no terminator.
            ::_vsnwprintf(text, kLongestEvent, format, arguments);
            static_cast<void>(m_loggerEx->LogEx(level, file, function, line, text));
        }
        return ERROR_SUCCESS;
    }
    std::wstring text = Basalt::FormatTextV(format, arguments);
    if (text.size() > kLongestWhole)
    {
        text.resize(kCutLength);
    }
    return m_logger->Log(file, function, line, level, text.c_str());
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

DWORD CLoggerHolder::WriteFinished(
    DWORD level, const wchar_t* file, const wchar_t* function, DWORD line, const wchar_t* message) noexcept
{
    if (m_logger == nullptr)
    {
        return ERROR_FUNCTION_FAILED;
    }
    const DWORD status = m_logger->Start();
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    return m_loggerEx != nullptr ? m_loggerEx->LogEx(level, file, function, line, message)
                                 : m_logger->Log(file, function, line, level, message);
}

} // namespace ETWLogging
