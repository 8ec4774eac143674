#pragma once

#include <fmt/printf.h>
#include <spdlog/spdlog.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "vision/text/internal/utf8.hpp"

/// The library's one log channel: the spdlog logger named "vision". A host that
/// registers its own under that name receives every line, from then on; until then
/// lines go to standard error, at the level of the process's default logger as it is
/// at that moment (spdlog::set_level). Private to the library.
///
/// Logging never throws, whatever the host's sinks do.
namespace vision::log {

std::shared_ptr<spdlog::logger> logger();

/// Hands a finished message to the logger; swallows the sinks' errors.
void write(spdlog::logger& logger, spdlog::level::level_enum level, std::string_view message) noexcept;

/// An argument, or what a callable one returns.
template <class Arg>
decltype(auto) evaluate(const Arg& arg) {
  if constexpr (std::is_invocable_v<const Arg&>) {
    return arg();
  } else {
    return (arg);
  }
}

/// One line, printf-style. The arguments are evaluated (those that are callables)
/// and formatted only when the level is on; what they hold cannot break the line
/// or drive a terminal.
template <class... Args>
void line(spdlog::level::level_enum level, const char* format, const Args&... args) noexcept {
  try {
    const auto channel = logger();
    if (!channel->should_log(level)) return;
    write(*channel, level, text::one_line(fmt::sprintf(format, evaluate(args)...)));
  } catch (...) {
    return;  // a line that cannot be built is lost, its caller goes on
  }
}

/// The error line of an unexpected failure: `message`, then indented lines with
/// `details` and those frames of the current stack that have a name (functions that a
/// module exports; often few or none).
void error_with_stack(std::string_view message, const std::string& details) noexcept;

}  // namespace vision::log
