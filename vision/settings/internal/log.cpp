#include "vision/settings/internal/log.hpp"

#include <spdlog/sinks/stdout_color_sinks.h>

#include <boost/stacktrace.hpp>

namespace vision::log {

std::shared_ptr<spdlog::logger> logger() {
  if (auto registered = spdlog::get("vision")) return registered;
  // Not registered, so that a host may still register its own; never destroyed,
  // so that static objects may still log.
  static const auto& own =
      *new auto(std::make_shared<spdlog::logger>("vision", std::make_shared<spdlog::sinks::stderr_color_sink_mt>()));
  // spdlog::set_level() does not reach a logger that is not registered.
  if (const auto* process_wide = spdlog::default_logger_raw()) own->set_level(process_wide->level());
  return own;
}

void write(spdlog::logger& logger, spdlog::level::level_enum level, std::string_view message) noexcept {
  try {
    logger.log(level, spdlog::string_view_t(message.data(), message.size()));
  } catch (...) {
    return;  // spdlog lets some errors of a sink through
  }
}

void error_with_stack(std::string_view message, const std::string& details) noexcept {
  try {
    const auto channel = logger();
    if (!channel->should_log(spdlog::level::err)) return;
    std::string lines(message);
    lines += "\n    " + text::one_line(details);
    constexpr std::size_t own_frames = 1, max_frames = 24;
    for (const auto& frame : boost::stacktrace::stacktrace(own_frames, max_frames)) {
      if (const std::string name = frame.name(); !name.empty()) lines += "\n    at " + text::one_line(name);
    }
    write(*channel, spdlog::level::err, lines);
  } catch (...) {
    return;
  }
}

}  // namespace vision::log
