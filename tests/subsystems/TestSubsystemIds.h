#pragma once

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

/// What TestSubsystem.dll does for a service, chosen by the CLSID: each behaviour has its own. Most are a
/// place, at which what follows happens: Throws, Crashes, Overflows the stack, Fails, or gives Null.
inline constexpr std::wstring_view kTestBehaviours[] = {
    L"WellBehaved", ///< Runs until it is stopped. Arguments: "exit N" stops at once with the Win32 error N,
                    ///< "tell" records (below) how the service finds its process.
    L"UnloadAfterStop", ///< The same, then its result is 0xDEADBABE.
    L"StartFails",      ///< Stopped with ERROR_NOT_READY (21).
    L"SlowLoad",        ///< Waits in CreateObject for "LoadMs" or until another one does, and records that.
    L"ClassThrows",     ///< In DllGetClassObject.
    L"ClassCrashes",
    L"ClassFails",
    L"ClassNull",
    L"CreateThrows", ///< In CreateObject.
    L"CreateCrashes",
    L"CreateFails",
    L"CreateNull",
    L"EarlyThrows", ///< In TxServiceMain, before any report.
    L"EarlyCrashes",
    L"EarlyOverflows",
    L"EarlyFails",
    L"RunningThrows", ///< After the report that it runs.
    L"RunningCrashes",
    L"StoppedFails",  ///< After the reports that it runs and has stopped with ERROR_NOT_READY (21).
    L"ReleaseThrows", ///< In the last Release.
};

/// {7E57D11A-5B3C-4C1E-9A60-0000000000NN}, NN being the behaviour's number from 1.
[[nodiscard]] inline std::wstring TestClsidText(std::wstring_view behaviour)
{
    constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
    const auto number = std::ranges::find(kTestBehaviours, behaviour) - std::begin(kTestBehaviours) + 1;
    return std::wstring(L"{7E57D11A-5B3C-4C1E-9A60-0000000000") + kDigits[number / 16] +
           kDigits[number % 16] + L"}";
}

/// File names, beside the test programs.
inline constexpr wchar_t kTestModule[] = L"TestSubsystem.dll";
inline constexpr wchar_t kNoExportModule[] = L"NoExportSubsystem.dll";

/// Key below HKEY_LOCAL_MACHINE where test modules leave records, if it exists, and look for what they are to
/// do. Values:
/// - "told", a text: what "tell" asked for.
/// - "LoadMs", a number, for SlowLoad; "met": whether two loads ran at the same time.
/// - "unloaded": the test module was freed while its process went on.
/// - "Stop-<process id>": the double of the log controller was stopped; "controller" tells its calls.
/// - "Oobe": what the double of the first-run service says.
inline constexpr wchar_t kTestRecordKey[] = L"SOFTWARE\\TxTest";

inline void Record(const wchar_t* name, const std::wstring& text)
{
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTestRecordKey, name, REG_SZ, text.c_str(), size);
}

[[nodiscard]] inline std::wstring ReadRecord(const wchar_t* name)
{
    wchar_t text[512] = {};
    DWORD size = sizeof(text);
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kTestRecordKey, name, RRF_RT_REG_SZ, nullptr, text, &size);
    return text;
}
