#pragma once

#include <windows.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/Narrow.h"
#include "txsvcctl/Tool.h"

/// What one run of the tool gave.
struct CtlResult : TxCtl::IConsole
{
    void Out(const std::wstring& text) override { out += text + L"\n"; }
    void Error(const std::wstring& text) override { error += text + L"\n"; }

    int exitCode = -1;
    std::wstring out;
    std::wstring error;
};

inline std::ostream& operator<<(std::ostream& stream, const CtlResult& result)
{
    return stream << Narrow(result.out + result.error) << "= " << result.exitCode;
}

/// Runs a command in this process, on the prefix's real registry and service manager.
inline CtlResult RunCtl(const std::vector<std::wstring>& arguments)
{
    CtlResult result;
    result.exitCode = static_cast<int>(TxCtl::RunTool(arguments, result));
    return result;
}

/// For SystemTimeToTzSpecificLocalTime, whatever the time zone is.
inline BOOL WINAPI
LocalTimeAnHourLater(const TIME_ZONE_INFORMATION* /*zone*/, const SYSTEMTIME* universal, SYSTEMTIME* local)
{
    constexpr LONGLONG kHour = 36'000'000'000;
    LARGE_INTEGER time{};
    ::SystemTimeToFileTime(universal, reinterpret_cast<FILETIME*>(&time));
    time.QuadPart += kHour;
    return ::FileTimeToSystemTime(reinterpret_cast<FILETIME*>(&time), local);
}
