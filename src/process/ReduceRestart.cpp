#include "process/ReduceRestart.h"

#include <atomic>

namespace
{

std::atomic<bool> g_stopping = false;

} // namespace

bool IsReduceRestartStopping() noexcept
{
    return g_stopping;
}

void SetReduceRestartStopping() noexcept
{
    g_stopping = true;
}
