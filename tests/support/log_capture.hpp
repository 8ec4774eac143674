#pragma once

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <string>
#include <vector>

namespace vision::test {

/// Registers a logger named "vision" that keeps its lines as "level: text" for a
/// scope: the latest 1,000.
class LogCapture {
 public:
  explicit LogCapture(spdlog::level::level_enum level = spdlog::level::debug) {
    spdlog::drop("vision");
    const auto logger = std::make_shared<spdlog::logger>("vision", sink_);
    logger->set_level(level);
    logger->set_formatter(std::make_unique<spdlog::pattern_formatter>("%l: %v", spdlog::pattern_time_type::local, ""));
    spdlog::register_logger(logger);
  }
  ~LogCapture() { spdlog::drop("vision"); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const { return sink_->last_formatted(); }

 private:
  const std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_ =
      std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(1'000);
};

}  // namespace vision::test
