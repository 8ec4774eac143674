#pragma once

#include <cstdint>

/// What the telemetry could not write. Losing it never changes an outcome: these
/// counters and a line at debug level are the only sign of it.
namespace vision {

/// How many shadow log records this process could not write since it began.
/// Thread-safe.
std::uint64_t shadow_log_losses() noexcept;

/// How many screenshots this process should have stored as fixtures and could
/// not, since it began. Thread-safe.
std::uint64_t fixture_losses() noexcept;

}  // namespace vision
