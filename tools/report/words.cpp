#include "tools/report/words.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace report {
namespace {

// What floating point adds to or takes from a share such as 0.29.
constexpr double dust = 1e-9;

}  // namespace

std::string percent(double share) {
  return fmt::format("{:.0f} %", std::floor(share * 100 + dust));
}

std::string percent_at_most(double share) {
  return fmt::format("{:.0f} %", std::ceil(std::max(0.0, share * 100 - dust)));
}

std::string counted(std::int64_t count, std::string_view one) {
  return grouped(count) + " " + std::string(one) + (count == 1 ? "" : "s");
}

std::string grouped(std::int64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3 && digits[at - 4] != '-';) digits.insert(at -= 3, ",");
  return digits;
}

std::string dollars(double amount) {
  return amount < 1 ? fmt::format("${:.4f}", amount) : fmt::format("${:.2f}", amount);
}

std::string timestamp(std::int64_t unix_seconds) {
  // Not by fmt's chrono formats: they count in nanoseconds, which overflow in the year 2262.
  const std::chrono::sys_seconds at{std::chrono::seconds(unix_seconds)};
  const auto midnight = std::chrono::floor<std::chrono::days>(at);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss time(at - midnight);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count());
}

std::string day(std::int64_t unix_seconds) {
  return timestamp(unix_seconds).substr(0, 10);
}

}  // namespace report
