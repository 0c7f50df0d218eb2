#pragma once

#include <windows.h>

namespace ETWLogging
{

/// Where a logger builder reads its settings from instead of the registry.
class ILogConfigReader
{
public:
    ILogConfigReader(const ILogConfigReader&) = delete;
    ILogConfigReader& operator=(const ILogConfigReader&) = delete;

    /// @param value untouched on failure.
    /// @return 0 or a Win32 error code.
    [[nodiscard]] virtual DWORD ReadDword(const wchar_t* name, DWORD& value) const noexcept = 0;

protected:
    ILogConfigReader() noexcept = default;
    ~ILogConfigReader() = default;
};

} // namespace ETWLogging
