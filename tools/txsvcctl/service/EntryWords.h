#pragma once

#include <windows.h>

#include <optional>
#include <span>
#include <string>

namespace TxCtl
{

/// A number of the service manager and what it is called on the command line and in JSON.
struct EntryWord
{
    DWORD number;
    const wchar_t* word;
};

inline constexpr EntryWord kStartTypes[] = {
    {SERVICE_AUTO_START, L"auto"}, {SERVICE_DEMAND_START, L"manual"}, {SERVICE_DISABLED, L"disabled"}};

inline constexpr EntryWord kSidTypes[] = {
    {SERVICE_SID_TYPE_NONE, L"none"},
    {SERVICE_SID_TYPE_UNRESTRICTED, L"unrestricted"},
    {SERVICE_SID_TYPE_RESTRICTED, L"restricted"}};

inline constexpr EntryWord kRecoveryActions[] = {
    {SC_ACTION_NONE, L"none"},
    {SC_ACTION_RESTART, L"restart"},
    {SC_ACTION_REBOOT, L"reboot"},
    {SC_ACTION_RUN_COMMAND, L"run"}};

/// Nothing for another word.
[[nodiscard]] inline std::optional<DWORD> NumberOf(std::span<const EntryWord> words, const std::wstring& word)
{
    for (const EntryWord& known : words)
    {
        if (known.word == word)
        {
            return known.number;
        }
    }
    return std::nullopt;
}

/// "unknown" for another number.
[[nodiscard]] inline std::wstring WordOf(std::span<const EntryWord> words, DWORD number)
{
    for (const EntryWord& known : words)
    {
        if (known.number == number)
        {
            return known.word;
        }
    }
    return L"unknown";
}

} // namespace TxCtl
