#include "vision/runtime/internal/duration.hpp"

namespace vision::runtime {

Duration to_duration(double seconds) noexcept {
  constexpr double hundred_years_s = 100 * 365.25 * 86400;
  if (!(seconds > 0)) return Duration::zero();  // NaN too
  const double bounded = seconds < hundred_years_s ? seconds : hundred_years_s;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(bounded));
}

double to_seconds(Duration duration) noexcept {
  return std::chrono::duration<double>(duration).count();
}

std::int64_t whole_ms(Duration duration) noexcept {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

}  // namespace vision::runtime
