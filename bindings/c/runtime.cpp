#include <array>
#include <mutex>
#include <string>

#include <spdlog/sinks/base_sink.h>
#include "bindings/c/errors.hpp"
#include "bindings/c/exit_gate.hpp"
#include "bindings/c/handles.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/settings/settings.hpp"
#include "vision/wirein/losses.hpp"

namespace vision::c {
namespace {

// Hands log lines to the host.
class HostSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /// When it returns, the earlier function is not in a call.
  void set(vision_log function, void* host) {
    const std::lock_guard lock(mutex_);
    log_ = function;
    host_ = host;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::string line(message.payload.data(), message.payload.size());
    call_host(log_, host_, static_cast<int>(message.level), line.c_str(), line.size());
  }
  void flush_() override {}

 private:
  vision_log log_ = nullptr;
  void* host_ = nullptr;
};

void set_log(vision_log log, void* host, int level) {
  static auto& sink = *new std::shared_ptr<HostSink>(std::make_shared<HostSink>());
  static auto& mutex = *new std::mutex;
  const std::lock_guard lock(mutex);
  sink->set(log, host);
  spdlog::drop("vision");
  if (!log) return;
  const auto logger = std::make_shared<spdlog::logger>("vision", sink);
  logger->set_level(static_cast<spdlog::level::level_enum>(level));
  spdlog::register_logger(logger);
}

}  // namespace
}  // namespace vision::c

vision_runtime* vision_runtime_new(void) {
  return vision::c::guarded([] { return new vision_runtime{vision::c::Loop::start()}; });
}

void vision_runtime_free(vision_runtime* runtime) {
  if (!runtime) return;
  runtime->loop->end();
  delete runtime;
}

void vision_set_log(vision_log log, void* host, int level) {
  vision::c::set_log(log, host, level);
}

const char* vision_is_vision_enabled(void) {
  return vision::is_vision_enabled().data();  // of a literal
}

uint64_t vision_shadow_log_losses(void) {
  return vision::shadow_log_losses();
}

uint64_t vision_fixture_losses(void) {
  return vision::fixture_losses();
}

const char* vision_version(void) {
  static_assert(std::string_view(VISION_VERSION) == PROJECT_VERSION, "vision.h has the version of another project");
  return VISION_VERSION;
}
