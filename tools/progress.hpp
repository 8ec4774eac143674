#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tools {

/// A bar on standard error while something long is read. Silent when standard error
/// is no terminal; drawn after half a second at the earliest, and then ten times a
/// second at most.
class Progress {
 public:
  /// Without a total it counts instead.
  explicit Progress(std::optional<std::uint64_t> total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Takes the bar away.
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
