#include <windows.h>

#include <string>

#include "FaultySubsystem.h"
#include "TxSubsystemModule.h"

/// Answers a call each time that it is asked.
class CNeighbour : public TxSdk::CSubsystem
{
    DWORD OnStart(DWORD /*argc*/, LPWSTR* argv) override
    {
        m_ask.Reset(::CreateEventW(nullptr, FALSE, FALSE, (std::wstring(kAskEvent) + argv[0]).c_str()));
        m_answer.Reset(::CreateEventW(nullptr, FALSE, FALSE, (std::wstring(kAnswerEvent) + argv[0]).c_str()));
        return m_ask && m_answer ? ERROR_SUCCESS : ERROR_NOT_READY;
    }

    void Run(HANDLE stopEvent) override
    {
        const HANDLE events[] = {stopEvent, m_ask.Get()};
        while (::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
        {
            ::SetEvent(m_answer.Get());
        }
    }

    TxSdk::CHandle m_ask;
    TxSdk::CHandle m_answer;
};

TX_SUBSYSTEM_MODULE(CNeighbour, {0x7E57D11A, 0x5B3C, 0x4C1E, {0x9A, 0x60, 0, 0, 0, 0, 1, 2}})
