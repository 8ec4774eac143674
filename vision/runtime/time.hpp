#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>

/// @file
/// The library's only source of time. It belongs to the execution context, so
/// a test that installs a virtual one on its io_context lets a minute pass in
/// microseconds, and no signature carries a clock.

/// Time, time limits and cancellation. Of it a host needs TimeSource and
/// install_time_source, for tests in virtual time; the rest stands in installed
/// headers because templates use it, and may change with every release.
namespace vision::runtime {

/// Every span of time in the library.
using Duration = std::chrono::nanoseconds;

/// A clock pair and a way to wait. Used from the context's own threads only.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  /// Monotonic time since an arbitrary start: for deadlines.
  virtual Duration steady_now() const = 0;
  /// Time since the Unix epoch: for latencies and time stamps.
  virtual Duration wall_now() const = 0;
  /// Completes after `duration`; one that is not positive only lets other
  /// handlers run. Terminal cancellation ends it with operation_aborted.
  virtual boost::asio::awaitable<void> sleep(Duration duration) = 0;
  /// The same, but cancellation ends it without an error: what time limits wait
  /// on, which nearly always end early. By default `sleep` with its error dropped.
  virtual boost::asio::awaitable<void> wait(Duration duration);
  /// The context is being destroyed: drops whatever waits without calling it, as the
  /// context does with its own handlers. A source that keeps no handlers has nothing
  /// to do, which is the default.
  virtual void shutdown() noexcept {}
};

/// Makes `source` the time of `context`. Call it before anything on the context
/// uses time; a context without one uses the system's clocks.
void install_time_source(boost::asio::execution_context& context, std::shared_ptr<TimeSource> source);

/// The time source of an executor's context. Valid as long as the context.
TimeSource& time_source(const boost::asio::any_io_executor& executor);

/// Waits on the calling coroutine's time source.
boost::asio::awaitable<void> sleep_for(Duration duration);

/// Seconds since the Unix epoch on the calling coroutine's time source.
boost::asio::awaitable<double> wall_seconds();

/// Seconds as a duration a timer can take: NaN and negative values become zero,
/// anything beyond a hundred years becomes a hundred years.
Duration to_duration(double seconds) noexcept;

/// Whole or fractional seconds of a duration.
double to_seconds(Duration duration) noexcept;

/// Whole milliseconds of a duration, truncated.
std::int64_t whole_ms(Duration duration) noexcept;

/// A timer on the system's steady clock, for drivers of code that keeps real
/// time itself (the HTTP library) or that has no coroutine to wait in.
using IoTimer = boost::asio::steady_timer;

}  // namespace vision::runtime
