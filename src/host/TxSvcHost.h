#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "config/TxSvcHostConfig.h"
#include "host/TxSCMInterface.h"
#include "proxy/TxSvcHostProxy.h"
#include "workingset/TxSvcHostWorkingSetHandler.h"

/// Runs one service group from its command line to the end of its last service.
///
/// Threads: the process's main thread.
class CTxSvcHost
{
public:
    CTxSvcHost();
    ~CTxSvcHost();
    CTxSvcHost(const CTxSvcHost&) = delete;
    CTxSvcHost& operator=(const CTxSvcHost&) = delete;

    /// Blocks until every service of the group has stopped.
    /// @return the process's exit code: 0 after a normal end; ERROR_INVALID_PARAMETER (87) when the command
    ///         line names no usable group or the group has no service; ERROR_INTERNAL_ERROR (1359) when the
    ///         group's configuration cannot be read or the dispatcher does not start; the low 16 bits of the
    ///         HRESULT when COM does not start.
    [[nodiscard]] DWORD Start(int argc, wchar_t** argv);

    /// Takes the group's name from the first argument: all that follows its first "/".
    [[nodiscard]] bool ParseCommandLine(int argc, wchar_t** argv, std::wstring& groupName) const;

    [[nodiscard]] static bool AddServicesToScmInterface(
        const CTxSvcHostConfig& config, CTxSCMInterface& scmInterface);

    /// Starts working-set reduction unless it is switched off.
    bool InitializeWSS();
    /// Ends working-set reduction and stores the learnt band for the group. The handler is kept when it
    /// cannot be ended.
    bool DeInitializeWSS() noexcept;

private:
    [[nodiscard]] DWORD prepareGroup(int argc, wchar_t** argv, CTxSCMInterface& scmInterface);

    std::wstring m_groupDelimiter;
    WORD m_groupIndex; ///< where the group's entry stands in argv
    std::unique_ptr<CTxSvcHostWorkingSetHandler> m_workingSetHandler; ///< null while nothing is reduced
    std::unique_ptr<CTxSvcHostProxy> m_proxy;
};
