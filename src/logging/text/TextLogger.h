#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <utility>

#include "logging/logger/LoggingIf.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/text/LogFile.h"
#include "logging/text/LogMutex.h"

namespace ETWLogging
{

/// The logger that appends each message to a text file, which is opened and closed for it.
///
/// Log writes whatever has a level name: the threshold only answers IsLevelEnabled.
/// Folder, file name and mutex take effect with Activate.
class CLogging : public CLoggingIf, public IFollowsSettings
{
public:
    /// Asked before every write, with the file's mutex held where there is one; false refuses the message.
    using WriteGate = bool (*)(CLogging& logger);

    /// @param settings take effect with Initialize.
    explicit CLogging(LogSettings settings) noexcept : m_settings(std::move(settings)) {}

    DWORD Initialize(
        const wchar_t* group, DWORD context2, const wchar_t* host, DWORD reserved) noexcept override;
    DWORD Start() noexcept override { return ERROR_SUCCESS; }
    DWORD Stop() noexcept override { return ERROR_SUCCESS; }
    DWORD Flush() noexcept override { return ERROR_SUCCESS; }
    /// False once the folder could not be made or was refused: the logger has then switched itself off.
    [[nodiscard]] bool IsStarted() const noexcept override { return m_fileLogging; }
    [[nodiscard]] const wchar_t* GetGroup() const noexcept override { return m_group.c_str(); }
    [[nodiscard]] const wchar_t* GetHost() const noexcept override { return m_host.c_str(); }
    [[nodiscard]] DWORD GetProcessId() const noexcept override { return m_processId; }

    DWORD
    Log(const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        DWORD level,
        const wchar_t* message) noexcept override;
    [[nodiscard]] DWORD IsLevelEnabled(DWORD level) const noexcept override;

    void SetThreshold(DWORD level) noexcept override;
    [[nodiscard]] DWORD GetThreshold() const noexcept override { return m_threshold; }
    void SetOptions(DWORD options) noexcept override { m_options = options; }
    [[nodiscard]] DWORD GetOptions() const noexcept override { return m_options; }
    DWORD SetApplicationTag(const wchar_t* tag) noexcept override;
    [[nodiscard]] const wchar_t* GetApplicationTag() const noexcept override
    {
        return m_settings.tag.c_str();
    }

    void Activate() noexcept override;
    [[nodiscard]] const LogSettings& GetSettings() const noexcept override { return m_settings; }

    DWORD SetFolder(const wchar_t* folder) noexcept override;
    [[nodiscard]] const wchar_t* GetFolder() const noexcept override { return m_settings.folder.c_str(); }
    /// @param name with an extension and without a path.
    DWORD SetFileName(const wchar_t* name) noexcept override;
    [[nodiscard]] const wchar_t* GetFileName() const noexcept override { return m_settings.fileName.c_str(); }
    DWORD SetRotation(DWORD entriesPerFile, DWORD oldFileCount) noexcept override;
    DWORD SetMutexEnabled(bool enabled) noexcept override;

    void SetWriteGate(WriteGate gate) noexcept { m_gate = gate; }

private:
    static bool firstUseGate(CLogging& logger);
    static bool openGate(CLogging& /*logger*/) { return true; }
    static bool closedGate(CLogging& /*logger*/) { return false; }
    DWORD writeLine(
        bool alone,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        DWORD level,
        const wchar_t* message);

    // Texts, file and mutex are set up before other threads log.
    std::wstring m_group;
    std::wstring m_host;
    LogSettings m_settings; ///< With names and folder in place of missing ones.
    DWORD m_processId = ::GetCurrentProcessId();
    CLogMutex m_mutex;
    CLogFile m_file;

    std::atomic<DWORD> m_threshold = kDefaultThreshold;
    std::atomic<DWORD> m_options = kDefaultOptions;
    std::atomic<bool> m_fileLogging = true;
    std::atomic<WriteGate> m_gate = &CLogging::firstUseGate;
};

} // namespace ETWLogging
