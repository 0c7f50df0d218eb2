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
constexpr SIZE_T kStackBytes = 65536;

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
    m_registryChanged.Reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    m_stop.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (m_registryChanged && m_stop)
    {
        m_thread.Reset(::CreateThread(
            nullptr,
            kStackBytes,
            &CLogSettingsWatch::threadMain,
            this,
            STACK_SIZE_PARAM_IS_A_RESERVATION,
            nullptr));
    }
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): the settings stay as they are.
{
}

void CLogSettingsWatch::Stop() noexcept
{
    if (m_thread)
    {
        ::SetEvent(m_stop.Get());
        ::WaitForSingleObject(m_thread.Get(), INFINITE);
        m_thread.Reset();
    }
}

DWORD WINAPI CLogSettingsWatch::threadMain(void* watch) noexcept
{
    static_cast<CLogSettingsWatch*>(watch)->run();
    return 0;
}

void CLogSettingsWatch::run() noexcept
{
    enum : DWORD
    {
        StopAsked = WAIT_OBJECT_0,
        RegistryChanged,
        FolderChanged,
    };
    if (::WaitForSingleObject(m_stop.Get(), kStartDelayMs) != WAIT_TIMEOUT)
    {
        return;
    }
    watchFolder();
    const HANDLE handles[] = {m_stop.Get(), m_registryChanged.Get(), m_folder.Get()};
    DWORD count = m_folder ? 3 : 2;
    for (;;)
    {
        watchRegistry();
        apply(); // The first time for what has changed since the logger was set up.
        const DWORD signalled = ::WaitForMultipleObjects(count, handles, FALSE, INFINITE);
        if ((signalled != RegistryChanged && signalled != FolderChanged) ||
            ::WaitForSingleObject(m_stop.Get(), kSettleMs) != WAIT_TIMEOUT)
        {
            return;
        }
        if (signalled == FolderChanged && !::FindNextChangeNotification(m_folder.Get()))
        {
            count = 2; // The folder is gone.
        }
    }
}

void CLogSettingsWatch::watchFolder() noexcept
try
{
    m_folder = Basalt::CChangeNotification(::FindFirstChangeNotificationW(
        Basalt::ProgramFolder().c_str(),
        FALSE,
        FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE));
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
    ::ResetEvent(m_registryChanged.Get()); // Closing a watched key counts as a change.
    for (std::size_t i = 0; i < std::size(m_keys); ++i)
    {
        if (m_keys[i].Open(HKEY_LOCAL_MACHINE, kWatchedKeys[i], KEY_NOTIFY) == ERROR_SUCCESS)
        {
            ::RegNotifyChangeKeyValue(
                m_keys[i].Get(),
                FALSE,
                REG_NOTIFY_CHANGE_NAME |
                    (kWatchedKeys[i] == Contract::kLoggingKey ? REG_NOTIFY_CHANGE_LAST_SET : 0),
                m_registryChanged.Get(),
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
