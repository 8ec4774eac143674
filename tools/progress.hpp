#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tools {

/// A bar on standard error while something long is read. Silent when standard error
/// is not a terminal; drawn after half a second at the earliest, and then ten times a
/// second at most.
class Progress {
 public:
  /// Without a total it shows the count only.
  explicit Progress(std::optional<std::uint64_t> total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Erases the bar.
  ~Progress();

  void at(std::uint64_t bytes);

 private:
  using Clock = std::chrono::steady_clock;

  std::optional<std::uint64_t> total_;
  bool is_terminal_;
  bool drawn_ = false;
  Clock::time_point began_, next_;
};

}  // namespace tools
