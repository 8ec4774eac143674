#include "vision/replay/cassette.hpp"

#include "vision/replay/internal/tape.hpp"
#include "vision/settings/internal/log.hpp"

namespace vision {

Cassette::Cassette(std::string folder, CassetteOptions options)
    : tape_(std::make_unique<detail::Tape>(std::move(folder), options)) {}

Cassette::~Cassette() {
  const auto left = unused();
  if (left.empty()) return;
  log::line(spdlog::level::warn, "vision: %d recorded calls of %s were not replayed; the first is %s", left.size(),
            tape_->folder(), left.front());
}

bool Cassette::is_replaying() const noexcept {
  return tape_->is_replaying();
}

bool Cassette::is_recording() const noexcept {
  return tape_->is_recording();
}

std::vector<std::string> Cassette::unused() const {
  return tape_->unused();
}

const std::vector<std::string>& Cassette::misses() const noexcept {
  return tape_->misses();
}

runtime::Duration Cassette::began() const noexcept {
  return tape_->began();
}

}  // namespace vision
