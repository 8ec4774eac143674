#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <mutex>
#include <string>
#include <vector>

namespace vision::test {

/// Registers a logger named "vision" that keeps its lines as "level: text" for a
/// scope. `fail` makes its sink throw what is no std::exception.
class LogCapture {
 public:
  explicit LogCapture(spdlog::level::level_enum level = spdlog::level::debug) : sink_(std::make_shared<Sink>()) {
    spdlog::drop("vision");
    auto logger = std::make_shared<spdlog::logger>("vision", sink_);
    logger->set_level(level);
    spdlog::register_logger(logger);
  }
  ~LogCapture() { spdlog::drop("vision"); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& lines() const { return sink_->lines; }
  void fail() { sink_->fails = true; }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    std::vector<std::string> lines;
    bool fails = false;
    void sink_it_(const spdlog::details::log_msg& msg) override {
      if (fails) throw 42;
      const auto level = spdlog::level::to_string_view(msg.level);
      lines.push_back(std::string(level.data(), level.size()) + ": " +
                      std::string(msg.payload.data(), msg.payload.size()));
    }
    void flush_() override {}
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace vision::test
