#pragma once

#include <windows.h>

#include <atomic>

#include "base/Lock.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "logging/logger/LoggingIf.h"
#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

/// Has a change of the logging settings take effect in a running logger: threshold, option word and
/// rotation. Threads of the process's pool wait for the system's notice of a change and read the settings;
/// threads that log see only the logger's atomic values.
///
/// @see https://learn.microsoft.com/windows/win32/api/winreg/nf-winreg-regnotifychangekeyvalue
/// @see https://learn.microsoft.com/windows/win32/api/fileapi/nf-fileapi-findfirstchangenotificationw
/// @see https://learn.microsoft.com/windows/win32/api/threadpoolapiset/nf-threadpoolapiset-setthreadpoolwait
class CLogSettingsWatch
{
public:
    CLogSettingsWatch() noexcept = default;
    ~CLogSettingsWatch() { Stop(); }
    CLogSettingsWatch(const CLogSettingsWatch&) = delete;
    CLogSettingsWatch& operator=(const CLogSettingsWatch&) = delete;

    /// Has the logger write one message about settings that could not be used, then begins to watch. Where
    /// the system has no memory or handle left the settings stay as they are.
    /// @param logger borrowed until Stop.
    /// @param settings the ones that the logger has been set up with.
    void Start(CLoggingIf& logger, const LogSettings& settings) noexcept;
    /// Returns when the logger is no longer used. Also without Start.
    void Stop() noexcept TX_EXCLUDES(m_lock);

private:
    using Callback = void (CLogSettingsWatch::*)(TP_WAIT_RESULT);
    template <Callback callback>
    [[nodiscard]] Basalt::CPoolWait makeWait() noexcept;
    void wait(const Basalt::CPoolWait& wait, HANDLE handle, DWORD milliseconds) noexcept TX_EXCLUDES(m_lock);

    void onChange(TP_WAIT_RESULT result) noexcept;
    void onFolderChange(TP_WAIT_RESULT result) noexcept;
    void watchFolder() noexcept;
    void watchRegistry() noexcept;
    void apply() noexcept;
    void reportProblems() const noexcept;

    // While the waits are on, onChange alone uses these; it does not run twice at a time.
    CLoggingIf* m_logger = nullptr;
    LogSettings m_settings; ///< What the logger has.
    Basalt::CRegKey m_keys[4];

    Basalt::CHandle m_changed; ///< Of either place.
    Basalt::CChangeNotification m_folder;
    std::atomic<bool> m_isFolderNotified =
        false; ///< The folder tells of no further change until it is asked to.
    Basalt::CPoolWait m_changeWait;
    Basalt::CPoolWait m_folderWait;
    Basalt::CLock m_lock; ///< For the moment in which a wait begins.
    bool m_isOn TX_GUARDED_BY(m_lock) = false;
};

} // namespace ETWLogging
