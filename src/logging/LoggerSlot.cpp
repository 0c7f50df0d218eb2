#include "logging/LoggerSlot.h"

namespace ETWLogging
{

namespace
{

/// How long the end of the process waits for threads that are writing a message.
constexpr DWORD kTeardownWaitMs = 1000;

constinit CLoggerSlot g_slot;

/// Ends the logger among the last of the static objects: it is built before anything runs that could log.
class CTeardown
{
public:
    CTeardown() noexcept = default;
    ~CTeardown() { g_slot.Teardown(kTeardownWaitMs); }
    CTeardown(const CTeardown&) = delete;
    CTeardown& operator=(const CTeardown&) = delete;
};
const CTeardown g_teardown;

} // namespace

void CLoggerSlot::Teardown(DWORD waitMs) noexcept
{
    CLoggerHolder* const holder = m_holder.exchange(nullptr);
    if (holder == nullptr)
    {
        return;
    }
    holder->UnregisterHandler();
    const ULONGLONG start = ::GetTickCount64();
    while (m_users.load() != 0)
    {
        if (::GetTickCount64() - start >= waitMs)
        {
            return; // It stays allocated: somebody writes with it.
        }
        ::Sleep(1);
    }
    const std::unique_ptr<CLoggerHolder> unused(holder); // Nobody can reach it any more.
}

CLoggerSlot& ProcessLoggerSlot() noexcept
{
    return g_slot;
}

} // namespace ETWLogging
