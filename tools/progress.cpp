#include "tools/progress.hpp"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace tools {
namespace {

constexpr std::chrono::milliseconds patience(500), interval(100);
constexpr std::uint64_t megabyte = 1'000'000;

}  // namespace

Progress::Progress(std::optional<std::uint64_t> total)
    : total_(total), is_terminal_(isatty(STDERR_FILENO) == 1), began_(Clock::now()), next_(began_ + patience) {}

Progress::~Progress() {
  if (drawn_) fmt::print(stderr, "\r\033[K");
}

void Progress::at(std::uint64_t bytes) {
  if (!is_terminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + interval;
  drawn_ = true;
  const double seconds = std::chrono::duration<double>(Clock::now() - began_).count();
  const std::string rate = fmt::format("{} MB, {:.0f} MB/s", bytes / megabyte,
                                       static_cast<double>(bytes) / static_cast<double>(megabyte) / seconds);
  if (!total_ || *total_ == 0) {
    fmt::print(stderr, "\r\033[K{}", rate);
    return;
  }
  constexpr std::size_t width = 30;
  const double share = std::min(1.0, static_cast<double>(bytes) / static_cast<double>(*total_));
  const auto filled = static_cast<std::size_t>(share * width);
  fmt::print(stderr, "\r\033[K[{}{}] {:3.0f} %  {}", std::string(filled, '#'), std::string(width - filled, ' '),
             share * 100, rate);
}

}  // namespace tools
