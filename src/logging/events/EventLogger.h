#pragma once

#include <windows.h>
#include <evntrace.h>

#include <atomic>
#include <string>
#include <utility>

#include "base/Lock.h"
#include "logging/logger/LoggingIf.h"
#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

/// The logger that hands each message to the trace session that listens, as one event (EventRecord.h).
/// Without a session a message costs next to nothing.
///
/// A session chooses the levels by the two numbers it enables the provider with:
/// - its level, when not 0, stands for the threshold while the session is on, on Windows' scale: 1 for
///   LogCritical, 2 for LogError, 3 and 4 for LogWarning, 5 and more for LogNormal;
/// - its flags, when not 0, hold one bit for each level wanted, 1 << (level - 1).
///
/// It writes no text lines: the option word and the application tag do not apply to it.
/// @see https://learn.microsoft.com/windows/win32/api/evntrace/nf-evntrace-registertraceguidsw
class CETWLogging : public CLoggingIf_ex, public IFollowsSettings
{
public:
    /// @param settings take effect with Initialize or InitializeEx.
    explicit CETWLogging(LogSettings settings) noexcept : m_settings(std::move(settings)) {}
    ~CETWLogging() override;

    DWORD Initialize(
        const wchar_t* group, DWORD context2, const wchar_t* host, DWORD reserved) noexcept override;
    DWORD InitializeEx(
        void* context,
        const wchar_t* group,
        DWORD context2,
        const wchar_t* host,
        DWORD reserved) noexcept override;
    DWORD Start() noexcept override;
    DWORD Stop() noexcept override;
    DWORD Flush() noexcept override { return ERROR_SUCCESS; }
    [[nodiscard]] bool IsStarted() const noexcept override { return m_started; }
    [[nodiscard]] const wchar_t* GetGroup() const noexcept override { return m_group.c_str(); }
    [[nodiscard]] const wchar_t* GetHost() const noexcept override { return m_host.c_str(); }
    [[nodiscard]] DWORD GetProcessId() const noexcept override { return m_processId; }

    DWORD
    Log(const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        DWORD level,
        const wchar_t* message) noexcept override;
    DWORD
    LogEx(
        DWORD level,
        const wchar_t* file,
        const wchar_t* function,
        DWORD line,
        const wchar_t* message) noexcept override;

    /// The threshold and above, and always LogInformation. Knows nothing of the session's flags: they are
    /// looked at when the event is written.
    [[nodiscard]] DWORD IsLevelEnabled(DWORD level) const noexcept override;

    void SetThreshold(DWORD level) noexcept override;
    /// The session's while one is on that brings its own, otherwise the configured one.
    [[nodiscard]] DWORD GetThreshold() const noexcept override;
    void SetOptions(DWORD /*options*/) noexcept override {}
    [[nodiscard]] DWORD GetOptions() const noexcept override { return 0; }
    DWORD SetApplicationTag(const wchar_t* /*tag*/) noexcept override { return ERROR_NOT_SUPPORTED; }
    [[nodiscard]] const wchar_t* GetApplicationTag() const noexcept override { return L""; }

    void SetLevelGate(CLevelGate* gate) noexcept override TX_EXCLUDES(m_gateLock);

    void Activate() noexcept override {}
    [[nodiscard]] const LogSettings& GetSettings() const noexcept override { return m_settings; }

    DWORD SetFolder(const wchar_t* /*folder*/) noexcept override { return ERROR_NOT_SUPPORTED; }
    [[nodiscard]] const wchar_t* GetFolder() const noexcept override { return L""; }
    DWORD SetFileName(const wchar_t* /*name*/) noexcept override { return ERROR_NOT_SUPPORTED; }
    [[nodiscard]] const wchar_t* GetFileName() const noexcept override { return L""; }
    DWORD SetRotation(DWORD /*entriesPerFile*/, DWORD /*oldFileCount*/) noexcept override
    {
        return ERROR_NOT_SUPPORTED;
    }
    DWORD SetMutexEnabled(bool /*enabled*/) noexcept override { return ERROR_NOT_SUPPORTED; }

private:
    static ULONG WINAPI onControl(WMIDPREQUESTCODE code, void* context, ULONG* size, void* buffer) noexcept;
    void endSession() noexcept;
    [[nodiscard]] bool isWantedBySession(DWORD level) const noexcept;
    void updateGate() noexcept TX_EXCLUDES(m_gateLock);

    std::wstring m_group; ///< This and the next two are set before other threads log.
    std::wstring m_host;
    DWORD m_processId = ::GetCurrentProcessId();
    std::atomic<DWORD> m_threshold = kDefaultThreshold;

    Basalt::CLock m_lock; ///< Only for registering and unregistering, never for a message.
    TRACEHANDLE m_registration TX_GUARDED_BY(m_lock) = 0;
    std::atomic<bool> m_started = false;

    // Written by the control callback, which comes on any thread and may come inside Start: not under its
    // lock.
    std::atomic<TRACEHANDLE> m_session = 0;    ///< 0 when none listens.
    std::atomic<DWORD> m_sessionThreshold = 0; ///< 0 when the session brings none.
    std::atomic<DWORD> m_sessionFlags = 0;     ///< 0 when the session wants all levels.

    Basalt::CLock m_gateLock; ///< Held for a moment, calling nobody: the control callback takes it too.
    CLevelGate* m_gate TX_GUARDED_BY(m_gateLock) = nullptr;

    LogSettings m_settings;
};

} // namespace ETWLogging
