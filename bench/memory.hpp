#pragma once

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/json/parse.hpp>
#include <string>

#include "vision/runtime/time.hpp"
#include "vision/vision.hpp"

/// A page and a model in memory, and time that passes at once: what is left of a
/// mission is the library's own work.
namespace vision::bench {

namespace asio = boost::asio;

/// A clock that jumps: when nothing else is left to do, the earliest timer fires.
class JumpingClock {
 public:
  using duration = runtime::Duration;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<JumpingClock>;
  static constexpr bool is_steady = true;
  static time_point now() noexcept { return now_; }
  static inline time_point now_{};
};

/// Real timers of the event loop would wait; these ones fire when polled after
/// the clock has jumped.
struct NeverWait {
  static JumpingClock::duration to_wait_duration(const JumpingClock::duration&) { return {}; }
  static JumpingClock::duration to_wait_duration(const JumpingClock::time_point&) { return {}; }
};
using JumpingTimer = asio::basic_waitable_timer<JumpingClock, NeverWait>;
