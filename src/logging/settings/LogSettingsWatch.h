#pragma once

#include <windows.h>

#include <string>

#include "base/Owned.h"
#include "base/RegKey.h"
#include "logging/logger/LoggingIf.h"
#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

/// Has a change of the logging settings take effect in a running logger: threshold, option word and
/// rotation. It waits for the system's notice of a change, in a thread of its own; threads that log see
/// only the logger's atomic values.
///
/// @see https://learn.microsoft.com/windows/win32/api/winreg/nf-winreg-regnotifychangekeyvalue
/// @see https://learn.microsoft.com/windows/win32/api/fileapi/nf-fileapi-findfirstchangenotificationw
class CLogSettingsWatch
{
public:
    CLogSettingsWatch() noexcept = default;
    ~CLogSettingsWatch() { Stop(); }
    CLogSettingsWatch(const CLogSettingsWatch&) = delete;
    CLogSettingsWatch& operator=(const CLogSettingsWatch&) = delete;

    /// Has the logger write one message about settings that could not be used, then begins to watch. Where
    /// the system has no thread or handle left the settings stay as they are.
    /// @param logger borrowed until Stop.
    /// @param settings the ones that the logger has been set up with.
    void Start(CLoggingIf& logger, const LogSettings& settings) noexcept;

    /// Returns when the logger is no longer used. Also without Start.
    void Stop() noexcept;

private:
    static DWORD WINAPI threadMain(void* watch) noexcept;
    void run() noexcept;
    void watchFolder() noexcept;
    void watchRegistry() noexcept;
    void apply() noexcept;
    void reportProblems() const noexcept;

    CLoggingIf* m_logger = nullptr;
    LogSettings m_settings; ///< What the logger has.
    Basalt::CHandle m_stop;
    Basalt::CHandle m_registryChanged;
    Basalt::CChangeNotification m_folder;
    Basalt::CRegKey m_keys[4];
    Basalt::CHandle m_thread;
};

} // namespace ETWLogging
