#include "eventlog/EventLog.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>

#include "base/Owned.h"
#include "base/Text.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"

namespace
{

HMODULE g_host;
const Basalt::CHandle g_shown(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
std::wstring g_event; ///< As a viewer shows it: type, id, and the text that the host's file has for it.

BOOL WINAPI Show(HANDLE, WORD type, WORD, DWORD id, void*, WORD, DWORD, void* texts, void*)
{
    wchar_t text[512] = {};
    ::FormatMessageW(
        FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY,
        g_host,
        id,
        0,
        text,
        512,
        static_cast<va_list*>(texts));
    g_event = Basalt::FormatText(L"%u %u %s", type, id & 0xFFFF, text);
    return ::SetEvent(g_shown.Get());
}

TEST(EventLog, WhatHappensHasItsTypeIdAndText)
{
    const Basalt::CModule host(
        ::LoadLibraryExW(BesideTest(L"TxSvHost.exe").c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    g_host = host.Get();
    const CImportPatch report("ReportEventW", &Show);
    const CImportPatch soon(
        "SetThreadpoolWait", +[](TP_WAIT* wait, HANDLE, FILETIME*) {
            static const Basalt::CHandle s_now(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
            RealFunction<decltype(::SetThreadpoolWait)>("SetThreadpoolWait")(wait, s_now.Get(), nullptr);
        });
    const struct
    {
        void (*happen)();
        std::wstring event;
    } rows[] = {
        {[] { EventLog::GroupRuns(L"CORE"); },
         Basalt::FormatText(
             L"4 1 The service group 'CORE' has started in process %u.", ::GetCurrentProcessId())},
        {[] { EventLog::GroupRuns(L"CORE"); }, L""}, // Once is enough.
        {[] { EventLog::ServiceFailed(L"a", {5}); },
         L"1 2 The service 'a' has failed with code 0x00000005. Run txsvcctl check, or see the log, for what "
         L"is "
         L"wrong."},
        {[] { EventLog::ServiceFailed(L"a", {.exceptionCode = 0xC0000005}); },
         L"1 3 The service 'a' has crashed with exception 0xC0000005. The other services of its group go "
         L"on."},
        {[] { EventLog::NotTrusted(L"C:\\x.dll", 0x800B0100); },
         L"2 4 The module 'C:\\x.dll' is not used: it has no valid signature of the product's maker (code "
         L"0x800B0100)."},
        {[] { EventLog::GroupStoppedForUpdate(L"CORE"); },
         Basalt::FormatText(
             L"4 5 The service group 'CORE' has been stopped for an update. Process %u ends.",
             ::GetCurrentProcessId())},
    };
    for (const auto& [happen, event] : rows)
    {
        g_event.clear();
        happen();
        ::WaitForSingleObject(g_shown.Get(), event.empty() ? 0 : 30000); // Some come from the pool.
        EXPECT_EQ(g_event, event.empty() ? event : event + L"\r\n");
    }
}

} // namespace
