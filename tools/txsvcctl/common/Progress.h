#pragma once

#include <functional>
#include <string>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// Runs an operation that may take long on a thread of its own, and shows meanwhile for how long. The
/// system's own calls block: a start until the process has answered.
/// @param what "alpha: starting"
/// @throws what the operation throws
void RunWithProgress(IConsole& console, const std::wstring& what, const std::function<void()>& operation);

} // namespace TxCtl
