#pragma once

#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// The hosted services that ran before the product's files were exchanged, and run again afterwards.
/// Threads: the main thread, in COM's multithreaded apartment. All operations throw CToolError.
class CRunningServices
{
public:
    /// Stops all that runs, of every group, and waits for the end of the processes: through group control, as
    /// an updater does, and where that cannot be had, or leaves something, through the service manager.
    /// May be called again for what has started meanwhile.
    void Stop(IConsole& console);

    /// Starts what Stop has stopped, in the order of the groups' lists, and waits until it runs.
    /// @throws CToolError when one does not; the others are started all the same.
    void Start(IConsole& console) const;

private:
    std::vector<std::wstring> m_names;
};

} // namespace TxCtl
