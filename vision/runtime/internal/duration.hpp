#pragma once

#include <cstdint>

#include "vision/runtime/time.hpp"

/// Durations from numbers and to numbers.
namespace vision::runtime {

/// Seconds as a duration a timer can take: NaN and negative values become zero,
/// anything beyond a hundred years becomes a hundred years.
Duration to_duration(double seconds) noexcept;

/// Whole and fractional seconds of a duration.
double to_seconds(Duration duration) noexcept;

/// Whole milliseconds of a duration, truncated.
std::int64_t whole_ms(Duration duration) noexcept;

}  // namespace vision::runtime
