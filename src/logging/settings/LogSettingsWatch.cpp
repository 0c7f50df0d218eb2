#include "logging/settings/LogSettingsWatch.h"

#include <exception>
#include <iterator>
#include <utility>

#include "base/Paths.h"
#include "base/Text.h"

namespace ETWLogging
{

namespace
{

/// Time for a writer to finish what it began: several values, or a file in several pieces.
constexpr DWORD kSettleMs = 100;
/// The first moments belong to the start of the process; what changes in them is seen afterwards.
constexpr DWORD kStartDelayMs = 1000;

/// The key of the settings and what is above it: a key that is not there yet, or is replaced, can only be
/// noticed in its parent. The product's key is a link into the 32-bit ones.
constexpr const wchar_t* kWatchedKeys[] = {
    L"SOFTWARE", L"SOFTWARE\\Wow6432Node", Contract::kProductKey, Contract::kLoggingKey};

} // namespace

void CLogSettingsWatch::Start(CLoggingIf& logger, const LogSettings& settings) noexcept
try
{
    Stop();
    m_logger = &logger;
    m_settings = settings;
    if (!m_settings.problems.empty() && m_logger->Start() == ERROR_SUCCESS)
    {
        reportProblems();
    }
    m_changed.Reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    m_changeWait = makeWait<&CLogSettingsWatch::onChange>();
    m_folderWait = makeWait<&CLogSettingsWatch::onFolderChange>();
    if (m_changed && m_changeWait && m_folderWait)
    {
        {
            const Basalt::CLockGuard guard(m_lock);
            m_isOn = true;
        }
        wait(m_changeWait, m_changed.Get(), kStartDelayMs);
    }
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): the settings stay as they are.
{
}

void CLogSettingsWatch::Stop() noexcept
{
    {
        const Basalt::CLockGuard guard(m_lock);
        m_isOn = false; // No wait begins again.
    }
    for (Basalt::CPoolWait* const wait : {&m_changeWait, &m_folderWait})
    {
        if (*wait)
        {
            ::SetThreadpoolWait(wait->Get(), nullptr, nullptr);
            ::WaitForThreadpoolWaitCallbacks(wait->Get(), TRUE);
            wait->Reset();
        }
    }
    m_folder.Reset();
}

template <CLogSettingsWatch::Callback callback>
Basalt::CPoolWait CLogSettingsWatch::makeWait() noexcept
{
    return Basalt::CPoolWait(::CreateThreadpoolWait(
        [](TP_CALLBACK_INSTANCE* /*instance*/, void* watch, TP_WAIT* /*wait*/, TP_WAIT_RESULT result) {
            (static_cast<CLogSettingsWatch*>(watch)->*callback)(result);
        },
        this,
        nullptr));
}

/// Has the wait's callback called once: when the handle is signalled, or when the time is over.
void CLogSettingsWatch::wait(const Basalt::CPoolWait& wait, HANDLE handle, DWORD milliseconds) noexcept
{
    constexpr LONGLONG kUnitsPerMillisecond = 10000;
    ULARGE_INTEGER relative{};
    relative.QuadPart = static_cast<ULONGLONG>(-kUnitsPerMillisecond * milliseconds);
    FILETIME timeout = {relative.LowPart, relative.HighPart};
    const Basalt::CLockGuard guard(m_lock);
    if (m_isOn)
    {
        ::SetThreadpoolWait(wait.Get(), handle, milliseconds == INFINITE ? nullptr : &timeout);
    }
}

void CLogSettingsWatch::onChange(TP_WAIT_RESULT result) noexcept
{
    if (result == WAIT_OBJECT_0)
    {
        // Comes to an end: each place tells of one change until it is watched again.
        wait(m_changeWait, m_changed.Get(), kSettleMs);
        return;
    }
    watchRegistry();
    watchFolder(); // Afterwards: what it told of until now may have been reset.
    apply();       // The first time for what has changed since the logger was set up.
    wait(m_changeWait, m_changed.Get(), INFINITE);
}

void CLogSettingsWatch::onFolderChange(TP_WAIT_RESULT /*result*/) noexcept
{
    m_isFolderNotified = true;
    ::SetEvent(m_changed.Get());
}

void CLogSettingsWatch::watchFolder() noexcept
try
{
    if (m_isFolderNotified.exchange(false))
    {
        if (!::FindNextChangeNotification(m_folder.Get()))
        {
            return; // The folder is gone.
        }
    }
    else if (m_folder)
    {
        return; // Is still waited for.
    }
    else
    {
        m_folder = Basalt::CChangeNotification(::FindFirstChangeNotificationW(
            Basalt::ProgramFolder().c_str(),
            FALSE,
            FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE));
    }
    if (m_folder)
    {
        wait(m_folderWait, m_folder.Get(), INFINITE);
    }
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): then only the registry is watched.
{
}

void CLogSettingsWatch::watchRegistry() noexcept
{
    for (Basalt::CRegKey& key : m_keys)
    {
        key.Close();
    }
    ::ResetEvent(m_changed.Get()); // Closing a watched key counts as a change. May forget one of the folder.
    for (std::size_t i = 0; i < std::size(m_keys); ++i)
    {
        if (m_keys[i].Open(HKEY_LOCAL_MACHINE, kWatchedKeys[i], KEY_NOTIFY) == ERROR_SUCCESS)
        {
            ::RegNotifyChangeKeyValue(
                m_keys[i].Get(),
                FALSE,
                // The pool's thread may end before the change comes.
                REG_NOTIFY_THREAD_AGNOSTIC | REG_NOTIFY_CHANGE_NAME |
                    (kWatchedKeys[i] == Contract::kLoggingKey ? REG_NOTIFY_CHANGE_LAST_SET : 0),
                m_changed.Get(),
                TRUE);
        }
    }
}

void CLogSettingsWatch::apply() noexcept
try
{
    const LogSettings before = std::exchange(m_settings, ReadLogSettings());
    // Only what was changed: another value may have been set by the logger's own operations.
    if (m_settings.threshold != before.threshold)
    {
        m_logger->SetThreshold(m_settings.threshold);
    }
    if (m_settings.options != before.options)
    {
        m_logger->SetOptions(m_settings.options);
    }
    if (m_settings.entriesPerFile != before.entriesPerFile || m_settings.oldFiles != before.oldFiles)
    {
        static_cast<void>(m_logger->SetRotation(m_settings.entriesPerFile, m_settings.oldFiles));
    }
    if (!m_settings.problems.empty() && m_settings.problems != before.problems)
    {
        reportProblems();
    }
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): the settings stay as they are.
{
}

void CLogSettingsWatch::reportProblems() const noexcept
try
{
    const std::wstring text =
        Basalt::FormatText(L"Logging settings that cannot be used: %s", m_settings.problems.c_str());
    static_cast<void>(m_logger->Log(
        L"LogSettingsWatch", L"CLogSettingsWatch::reportProblems", __LINE__, LogWarning, text.c_str()));
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): no memory for a message about settings.
{
}

} // namespace ETWLogging
