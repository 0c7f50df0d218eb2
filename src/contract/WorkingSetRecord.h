#pragma once

#include <windows.h>

/// The settings of working-set reduction, filled by the host's configuration and copied by value into the
/// code that trims. The defaults stand with the configuration.
struct WorkingSetRecord
{
    DWORD dwEnabled = 0;
    DWORD dwLoggingEnabled = 0;
    DWORD dwCpuUsageLimit = 0;           ///< percent
    DWORD dwCpuUsageDuration = 0;        ///< milliseconds
    DWORD dwTimerIntervalBase = 0;       ///< milliseconds
    DWORD dwRandomizationRange = 0;      ///< milliseconds
    DWORD dwLimitFactor = 0;             ///< percent
    DWORD stOptimalBucketUpperLimit = 0; ///< bytes; 0 = not learnt yet
    DWORD dwBucketRange = 0;             ///< bytes
    DWORD dwOptimalOccuranceCount = 0;
    DWORD dwProcessIdleWaitTime = 0; ///< milliseconds
};
