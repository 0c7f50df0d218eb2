#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "base/Lock.h"
#include "base/Stopwatch.h"
#include "eventlog/EventLog.h"
#include "proxy/FirstRunGate.h"
#include "proxy/ServiceStart.h"
#include "proxy/SubsystemHolder.h"

/// Runs the services of the group: every service of the process has GenericServiceMain as its entry point,
/// which loads the service's subsystem and hands it the service's thread.
///
/// Constructing one makes sure that the process's proxy instance exists, destroying it releases the instance.
/// The host makes one before the service control dispatcher starts and destroys it after the dispatcher has
/// returned. Threads: GenericServiceMain runs on a thread of the service control manager for each service;
/// the rest of the interface on any thread. Errors: each is logged where it is seen and ends the one service.
/// @see https://learn.microsoft.com/windows/win32/services/service-servicemain-function
class CTxSvcHostProxy
{
public:
    CTxSvcHostProxy();
    ~CTxSvcHostProxy();
    CTxSvcHostProxy(const CTxSvcHostProxy&) = delete;
    CTxSvcHostProxy& operator=(const CTxSvcHostProxy&) = delete;

    /// When the dispatcher has returned: the last service has reported its end, but its thread may still be
    /// releasing the subsystem. Gives such threads a second.
    static void WaitForThreads() noexcept;

    /// @param argv the service's name, then the arguments given to StartServiceW.
    static void WINAPI GenericServiceMain(DWORD argc, LPWSTR* argv) noexcept;

    /// Loads the module that is configured for the service and creates its subsystem.
    /// @param failure receives why there is none.
    [[nodiscard]] static bool GetSubsystem(
        const std::wstring& name, CSubsystemHolder& holder, EventLog::Failure& failure);

    /// The same for a given module and class.
    /// @return S_OK, which a class object may also give without creating anything; else why not, logged.
    [[nodiscard]] static HRESULT LoadSubsystem(
        const std::wstring& name,
        const std::wstring& path,
        REFCLSID clsid,
        CSubsystemHolder& holder,
        EventLog::Failure& failure);

    /// An empty text and "{}" are refused without a log line: that is how a service without a subsystem is
    /// written.
    [[nodiscard]] static bool ConvertStringToCLSID(const std::wstring& text, CLSID& clsid) noexcept;

    /// @param clsidText as configured; it is not brought into the canonical form.
    [[nodiscard]] static bool LookupPathnameFromCLSID(const std::wstring& clsidText, std::wstring& path);

    /// What became of a call of TxServiceMain.
    struct RunResult
    {
        DWORD code;  ///< what the subsystem set, or ERROR_FUNCTION_FAILED or ERROR_INVALID_OPERATION
        bool failed; ///< by a failed HRESULT or an exception
        EventLog::Failure failure;
    };
    [[nodiscard]] static RunResult SafeExecuteServiceMain(
        const CSubsystemHolder& holder, DWORD argc, LPWSTR* argv) noexcept;

    /// From the call of TxServiceMain to the release and, if asked for, the unloading of the subsystem.
    /// Nothing may throw here: the subsystem has reported its states.
    static RunResult RunSubsystem(
        const CServiceStart& start,
        const Basalt::CStopwatch& sinceStart,
        CSubsystemHolder& holder,
        DWORD argc,
        LPWSTR* argv) noexcept;

    /// Reports a service that never ran to the service control manager as stopped.
    static bool SetServiceStoppedStatus(const wchar_t* name) noexcept;

private:
    /// What the process's services share.
    struct Instance
    {
        /// Held while a subsystem loads, when the group's services load one after another. Loads are short
        /// enough for a waiting thread to spin first.
        Basalt::CLock loadLock{4000};
        CFirstRunGate firstRunGate;
        CServiceStart::CList starts;
    };

    [[nodiscard]] static std::shared_ptr<Instance> currentInstance();
    static void ProxyServiceMain(Instance& instance, const std::wstring& name, DWORD argc, LPWSTR* argv);
    [[nodiscard]] static bool admitAndLoad(
        Instance& instance,
        const std::wstring& name,
        const Basalt::CStopwatch& sinceStart,
        CSubsystemHolder& holder);
    [[nodiscard]] static bool loadOrReportStopped(
        const std::wstring& name,
        const Basalt::CStopwatch& sinceStart,
        const Basalt::CStopwatch& sinceAdmission,
        CSubsystemHolder& holder);

    static void reportFailed(const CServiceStart& start) noexcept;

    /// The process's one instance and what guards it.
    struct Slot
    {
        Basalt::CLock lock;
        std::shared_ptr<Instance> instance TX_GUARDED_BY(lock);
    };
    [[nodiscard]] static Slot& slot();
};
