#pragma once

/// @file
/// The process-wide flag that says that the group is being stopped for an update ("reduce restart"). Once set
/// it stays set for the life of the process: services that the service control manager still starts are not
/// run. Threads: any.

[[nodiscard]] bool IsReduceRestartStopping() noexcept;
void SetReduceRestartStopping() noexcept;
