#include "logging/LogBuilder.h"

#include <new>
#include <utility>

#include "logging/ETWLogging.h"
#include "logging/LogSettings.h"
#include "logging/Logging.h"

namespace ETWLogging
{

namespace
{

constinit CDefaultLogBuilder g_builder;

DWORD ConfiguredMechanism(const ILogConfigReader* config) noexcept
{
    if (config == nullptr)
    {
        return ReadLogMechanism();
    }
    DWORD mechanism = 0;
    static_cast<void>(config->ReadDword(kMechanismSetting.name, mechanism)); // Absent: stays 0.
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
{
    const bool toFile = mechanism == kFileMechanism || ConfiguredMechanism(config) == kFileMechanism;
    if (logger != nullptr)
    {
        return true;
    }
    if (IsGivenButEmpty(group) || IsGivenButEmpty(host))
    {
        return false;
    }
    std::unique_ptr<CLoggingIf> made;
    if (toFile)
    {
        made.reset(new (std::nothrow) CLogging);
    }
    else
    {
        made.reset(new (std::nothrow) CETWLogging);
    }
    if (made == nullptr || !InitializeLogger(*made, context, group, context2, host))
    {
        return false;
    }
    logger = std::move(made);
    logger->Activate();
    return true;
}

CLogBuilderIf& DefaultLogBuilder() noexcept
{
    return g_builder;
}

} // namespace ETWLogging
