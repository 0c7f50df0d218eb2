#pragma once

#include <windows.h>

#include <memory>

#include "logging/LogConfigReader.h"
#include "logging/logger/LoggingIf.h"

namespace ETWLogging
{

/// Makes the process's logger. Builders live as long as the process: nobody deletes one through these
/// interfaces.
class CLogBuilderIf
{
public:
    CLogBuilderIf(const CLogBuilderIf&) = delete;
    CLogBuilderIf& operator=(const CLogBuilderIf&) = delete;

    /// @param group, host may be null, but not empty.
    /// @param mechanism 1 forces the file logger.
    /// @param logger the out slot; one that it already holds stays.
    /// @param config borrowed for the call; null reads the registry.
    [[nodiscard]] virtual bool Build(
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD mechanism,
        std::unique_ptr<CLoggingIf>& logger,
        const ILogConfigReader* config) noexcept = 0;

protected:
    constexpr CLogBuilderIf() noexcept = default;
    ~CLogBuilderIf() = default;
};

/// A builder that also passes the process's context on.
class CLogBuilderIf_ex : public CLogBuilderIf
{
public:
    [[nodiscard]] virtual bool BuildEx(
        void* context,
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD mechanism,
        std::unique_ptr<CLoggingIf>& logger,
        const ILogConfigReader* config) noexcept = 0;

protected:
    constexpr CLogBuilderIf_ex() noexcept = default;
    ~CLogBuilderIf_ex() = default;
};

/// Chooses between event tracing and the text file by the logging mechanism that is configured.
class CDefaultLogBuilder final : public CLogBuilderIf_ex
{
public:
    constexpr CDefaultLogBuilder() noexcept = default;

    [[nodiscard]] bool Build(
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD mechanism,
        std::unique_ptr<CLoggingIf>& logger,
        const ILogConfigReader* config) noexcept override;

    [[nodiscard]] bool BuildEx(
        void* context,
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD mechanism,
        std::unique_ptr<CLoggingIf>& logger,
        const ILogConfigReader* config) noexcept override;
};

/// The process's one builder.
[[nodiscard]] CLogBuilderIf& DefaultLogBuilder() noexcept;

} // namespace ETWLogging
