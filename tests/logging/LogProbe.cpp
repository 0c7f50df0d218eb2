#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

#include "logging/basalt/BasaltLogger.h"
#include "logging/Log.h"
#include "logging/text/TextLogger.h"

using namespace ETWLogging;

/// A process of its own for the logging tests: log_probe MODE [...]
namespace
{

constexpr wchar_t kLogSource[] = L"log_probe";

/// Logs from four threads that race for the first call, then with another identity, then by the bridge.
int LogAroundIdentity()
{
    std::atomic<DWORD> failed = 0;
    const auto first = [&failed] { failed += LogWrite(LogError, kLogSource, L"f", 1, L"first"); };
    {
        const std::jthread threads[] = {
            std::jthread(first), std::jthread(first), std::jthread(first), std::jthread(first)};
    }
    SetLoggingIdentity({nullptr, L"PLATFORM", 0, nullptr, 0});
    failed += LogWrite(LogNormal, kLogSource, L"f", 1, L"below the %s", L"threshold");
    Basalt::CLogger::Log(2, L"base", L"f", 1, L"bridged %d", 7);
    return failed == 0 && !LogIsEnabled(LogNormal) && LogIsEnabled(LogInformation) ? 0 : 1;
}

/// Leaves the process while threads go on logging.
int ExitUnderLoad()
{
    static std::atomic<DWORD> s_written = 0;
    for (int i = 0; i < 4; ++i)
    {
        std::thread([] {
            for (;; ++s_written)
            {
                TX_LOG(LogError, L"f", L"still here");
            }
        }).detach();
    }
    while (s_written < 40)
    {
        ::Sleep(1);
    }
    return 0;
}

/// Writes numbered lines into FOLDER\shared.log.
int WriteLines(const wchar_t* folder)
{
    CLogging logger(ReadLogSettings());
    logger.Initialize(L"shared", 0, nullptr, 0);
    logger.SetFolder(folder);
    logger.SetRotation(25, 20);
    logger.Activate();
    DWORD failed = 0;
    for (int i = 0; i < 100; ++i)
    {
        const std::wstring text = std::to_wstring(::GetCurrentProcessId()) + L"/" + std::to_wstring(i);
        failed |= logger.Log(L"f", L"f", 1, LogError, text.c_str());
    }
    return failed == 0 ? 0 : 1;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    return mode == L"write" ? WriteLines(argv[2]) : mode == L"exit" ? ExitUnderLoad() : LogAroundIdentity();
}
