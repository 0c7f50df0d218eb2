#pragma once

#include <atomic>

/// The trusted-module check on the module that holds a code address. Logs nothing; a refusal goes to the
/// event log.
/// @param isSaid whether one has gone there already, when the first is enough; null otherwise.
/// Threads: any.
[[nodiscard]] bool IsTrustedCode(const void* address, std::atomic<bool>* isSaid = nullptr) noexcept;
