#pragma once

#include <windows.h>

/// @file
/// What failing_calls and the host that it watches (failing_host) share: a section of memory with what is to
/// fail, and what the host says about itself. A call is known by the road that leads to it: the places in the
/// program from which it was called, innermost first.

inline constexpr wchar_t kFailingSection[] = L"Local\\TxFailingCalls";
inline constexpr int kMostFrames = 12;
inline constexpr int kMostRoads = 8192; ///< A power of two: a hash table.
inline constexpr int kMostFunctions = 512;
inline constexpr LONG kMostLog = 1 << 19;

/// A road to a call of one function, and how often it was taken.
struct Road
{
    LONG64 key; ///< 0 for a free place.
    LONG function;
    LONG frames;
    DWORD offsets[kMostFrames]; ///< Return addresses, from the start of the program.
    LONG count;
};

struct FailingSection
{
    // What is to fail.
    LONG64 key;      ///< Of the road; 0 for nothing.
    LONG occurrence; ///< From 1.
    LONG isForGood;  ///< Whether all calls from the same place fail from then on.
    ULONG64 value;   ///< What the function then returns.
    DWORD code;      ///< The last error.
    LONG hasCode;
    LONG isQuick; ///< Long waits are cut short.

    // What the host says.
    LONG failed;      ///< Calls that failed.
    DWORD failedFrom; ///< The place of the first one.
    LONG hasEnded;    ///< 1: the program's main function returned; 2: it was ended by force.
    DWORD exitCode;
    LONG hasCrashed;
    DWORD crashCode;
    LONG handles; ///< At the end, as the next.
    LONG blocks;
    LONG threads;
    LONG logUsed;
    LONG logDropped;
    char functions[kMostFunctions][48];
    Road roads[kMostRoads];
    wchar_t log[kMostLog]; ///< "LEVEL FUNCTION: MESSAGE\n" for each message.
};
