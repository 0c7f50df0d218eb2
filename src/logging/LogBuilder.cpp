#include "logging/LogBuilder.h"

#include <exception>
#include <utility>

#include "logging/events/EventLogger.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/text/TextLogger.h"

namespace ETWLogging
{

namespace
{

constinit CDefaultLogBuilder g_builder;

DWORD MechanismFrom(const ILogConfigReader& config) noexcept
{
    DWORD mechanism = 0;
    static_cast<void>(config.ReadDword(kMechanismSetting.name, mechanism)); // Absent: stays 0.
    return mechanism;
}

/// Initialises by the widest operation that the logger has and accepts.
bool InitializeLogger(
    CLoggingIf& logger, void* context, const wchar_t* group, DWORD context2, const wchar_t* host) noexcept
{
    auto* const loggerEx = dynamic_cast<CLoggingIf_ex*>(&logger);
    return (loggerEx != nullptr &&
            loggerEx->InitializeEx(context, group, context2, host, 0) == ERROR_SUCCESS) ||
           logger.Initialize(group, context2, host, 0) == ERROR_SUCCESS;
}

bool IsGivenButEmpty(const wchar_t* text) noexcept
{
    return text != nullptr && *text == L'\0';
}

} // namespace

bool CDefaultLogBuilder::Build(
    const wchar_t* group,
    DWORD context2,
    const wchar_t* host,
    DWORD mechanism,
    std::unique_ptr<CLoggingIf>& logger,
    const ILogConfigReader* config) noexcept
{
    return BuildEx(nullptr, group, context2, host, mechanism, logger, config);
}

bool CDefaultLogBuilder::BuildEx(
    void* context,
    const wchar_t* group,
    DWORD context2,
    const wchar_t* host,
    DWORD mechanism,
    std::unique_ptr<CLoggingIf>& logger,
    const ILogConfigReader* config) noexcept
try
{
    if (logger != nullptr)
    {
        return true;
    }
    if (IsGivenButEmpty(group) || IsGivenButEmpty(host))
    {
        return false;
    }
    LogSettings settings = ReadLogSettings();
    if (mechanism != kFileMechanism)
    {
        mechanism = config == nullptr ? settings.mechanism : MechanismFrom(*config);
    }
    std::unique_ptr<CLoggingIf> made;
    if (mechanism == kFileMechanism)
    {
        made = std::make_unique<CLogging>(std::move(settings));
    }
    else
    {
        made = std::make_unique<CETWLogging>(std::move(settings));
    }
    if (!InitializeLogger(*made, context, group, context2, host))
    {
        return false;
    }
    logger = std::move(made);
    logger->Activate();
    return true;
}
catch (const std::exception&) // Out of memory.
{
    return false;
}

CLogBuilderIf& DefaultLogBuilder() noexcept
{
    return g_builder;
}

} // namespace ETWLogging
