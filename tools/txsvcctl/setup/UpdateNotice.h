#pragma once

#include <windows.h>

#include <memory>

#include "base/Owned.h"
#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// While it lives, hosts that ask are told that an update is being installed, and end at once.
///
/// It is a courtesy that spares a second stop: hosts whose account cannot reach this process, or that do not
/// trust TxSvHostPS.dll, start all the same.
/// Threads: the main thread, in COM's multithreaded apartment; hosts are answered on COM's threads.
class CUpdateNotice
{
public:
    /// @throws CToolError when somebody else is installing an update.
    explicit CUpdateNotice(IConsole& console);
    ~CUpdateNotice() { End(); }
    CUpdateNotice(const CUpdateNotice&) = delete;
    CUpdateNotice& operator=(const CUpdateNotice&) = delete;

    /// Before services are started.
    void End() noexcept;

private:
    Basalt::CHandle m_event;
    DWORD m_cookie = 0;
};

} // namespace TxCtl
