#pragma once

#include <windows.h>

#include "contract/WorkingSetRecord.h"

/// @file
/// The numbers that can be set below the host's key, each a REG_DWORD: names, ranges (both ends included) and
/// defaults. What is missing, of another type or out of range counts as the default.

namespace Contract
{

struct HostSetting
{
    const wchar_t* name;
    DWORD minimum;
    DWORD maximum;
    DWORD fallback;
};

/// One that working-set reduction takes.
struct WorkingSetSetting : HostSetting
{
    DWORD WorkingSetRecord::* field;
};

/// 1: services load one after another.
inline constexpr HostSetting kForceSerialLoads = {L"ForceSerialLoads", 0, 1, 1};

/// In the order in which the host reads them, up to the bucket range.
inline constexpr WorkingSetSetting kWorkingSetSettings[] = {
    {{L"WSSEnable", 0, 1, 1}, &WorkingSetRecord::dwEnabled},
    {{L"WSSLoggingEnable", 0, 1, 0}, &WorkingSetRecord::dwLoggingEnabled},
    {{L"WSSTimerBase", 300000, 1200000, 600000}, &WorkingSetRecord::dwTimerIntervalBase},
    {{L"WSSCpuLimit", 2, 10, 5}, &WorkingSetRecord::dwCpuUsageLimit},
    {{L"WSSCpuInterval", 5000, 10000, 5000}, &WorkingSetRecord::dwCpuUsageDuration},
    {{L"WSSRandomizationRange", 300000, 900000, 600000}, &WorkingSetRecord::dwRandomizationRange},
    {{L"WSSLimitFactor", 0, 200, 30}, &WorkingSetRecord::dwLimitFactor},
};
/// As small or large as the operator likes.
inline constexpr WorkingSetSetting kBucketRange = {
    {L"WSSBucketRange", 0, MAXDWORD, 0x500000}, &WorkingSetRecord::dwBucketRange};
inline constexpr WorkingSetSetting kOccurrenceCount = {
    {L"WSSOptimalOccuranceCount", 3, 10, 3}, &WorkingSetRecord::dwOptimalOccuranceCount};
/// An early release wrote that value under this name.
inline constexpr wchar_t kMisspeltOccurrenceCount[] = L"WSSOptiamlOccuranceCount";
inline constexpr WorkingSetSetting kIdleWaitTime = {
    {L"WSSProcessorIdleWaitTime", 30000, 300000, 60000}, &WorkingSetRecord::dwProcessIdleWaitTime};

} // namespace Contract
