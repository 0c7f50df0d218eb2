#include "eventlog/EventLog.h"

#include <array>
#include <atomic>
#include <cwchar>
#include <memory>
#include <new>

#include "EventMessages.h"
#include "base/Owned.h"
#include "contract/Keys.h"

namespace EventLog
{

namespace
{

/// Time for the services of the group to start.
constexpr DWORD kGroupDelayMs = 1000;

struct EventSourceTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::DeregisterEventSource(value); }
};

void Write(DWORD id, const wchar_t* first, const wchar_t* second) noexcept
{
    constexpr WORD kTypes[] = {
        EVENTLOG_SUCCESS, EVENTLOG_INFORMATION_TYPE, EVENTLOG_WARNING_TYPE, EVENTLOG_ERROR_TYPE};
    const WORD type = kTypes[id >> 30]; // The id's upper two bits are its severity.
    const wchar_t* texts[] = {first, second};
    const Basalt::COwned<EventSourceTraits> source(::RegisterEventSourceW(nullptr, Contract::kEventSource));
    if (source)
    {
        ::ReportEventW(
            source.Get(), type, 0, id, nullptr, static_cast<WORD>(std::size(texts)), 0, texts, nullptr);
    }
}

/// A number as text, without memory from the heap.
class CNumber
{
public:
    CNumber(const wchar_t* format, DWORD number) noexcept
    {
        static_cast<void>(::_snwprintf(m_text.data(), m_text.size() - 1, format, number));
    }
    [[nodiscard]] const wchar_t* Text() const noexcept { return m_text.data(); }

private:
    std::array<wchar_t, 16> m_text{};
};

/// An event of a group that is written later, by a thread of the process's pool. It deletes itself.
class CGroupEvent
{
public:
    static void Begin(DWORD id, const wchar_t* group, DWORD delayMs) noexcept
    {
        std::unique_ptr<CGroupEvent> event(new (std::nothrow) CGroupEvent(id));
        if (event == nullptr || !event->prepare(group))
        {
            return;
        }
        constexpr LONGLONG kUnitsPerMillisecond = 10000;
        ULARGE_INTEGER relative{};
        relative.QuadPart = static_cast<ULONGLONG>(-kUnitsPerMillisecond * delayMs);
        FILETIME due = {relative.LowPart, relative.HighPart};
        CGroupEvent& waiting = *event.release();
        ::SetThreadpoolWait(waiting.m_wait.Get(), waiting.m_never.Get(), &due);
    }

private:
    explicit CGroupEvent(DWORD id) noexcept : m_id(id) {}

    bool prepare(const wchar_t* group) noexcept
    {
        const std::size_t size = std::wcslen(group) + 1;
        m_group.reset(new (std::nothrow) wchar_t[size]);
        m_never.Reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        m_wait.Reset(::CreateThreadpoolWait(&onTime, this, nullptr));
        if (m_group == nullptr || !m_never || !m_wait)
        {
            return false;
        }
        std::wmemcpy(m_group.get(), group, size);
        return true;
    }

    static void CALLBACK
    onTime(TP_CALLBACK_INSTANCE* /*instance*/, void* context, TP_WAIT* /*wait*/, TP_WAIT_RESULT /*result*/)
    {
        const std::unique_ptr<CGroupEvent> event(static_cast<CGroupEvent*>(context));
        Write(event->m_id, event->m_group.get(), CNumber(L"%lu", ::GetCurrentProcessId()).Text());
    }

    DWORD m_id;
    std::unique_ptr<wchar_t[]> m_group;
    Basalt::CHandle m_never;
    /// A wait, not a timer: the pool has a thread for waits already, and would need one more for timers.
    Basalt::CPoolWait m_wait;
};

} // namespace

void ServiceFailed(const wchar_t* service, const Failure& failure) noexcept
{
    const bool hasCrashed = failure.exceptionCode != 0;
    const CNumber code(L"0x%08lX", hasCrashed ? failure.exceptionCode : failure.code);
    Write(hasCrashed ? TX_EVENT_SERVICE_CRASHED : TX_EVENT_SERVICE_FAILED, service, code.Text());
}

void NotTrusted(const wchar_t* path, DWORD verdict) noexcept
{
    const bool isKnown = path != nullptr && *path != L'\0';
    Write(TX_EVENT_NOT_TRUSTED, isKnown ? path : L"?", CNumber(L"0x%08lX", verdict).Text());
}

void GroupRuns(const wchar_t* group) noexcept
{
    static std::atomic<bool> s_isSaid = false;
    if (!s_isSaid.exchange(true))
    {
        CGroupEvent::Begin(TX_EVENT_GROUP_STARTED, group, kGroupDelayMs);
    }
}

void GroupStoppedForUpdate(const wchar_t* group) noexcept
{
    CGroupEvent::Begin(TX_EVENT_GROUP_STOPPED, group, 0);
}

} // namespace EventLog
