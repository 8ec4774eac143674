#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/execution_context.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

/// @file
/// The library's only source of time. It belongs to the execution context: a test
/// that installs a virtual one on its io_context lets a minute pass in microseconds,
/// and no signature carries a clock. vision/testing/virtual_time.hpp has such a source.

/// What a host needs for tests in virtual time.
namespace vision::runtime {

/// Every span of time in the library.
using Duration = std::chrono::nanoseconds;

/// A wait that has been started. Destroying it cancels the wait: the callback is
/// not called any more.
class Timer {
 public:
  virtual ~Timer() = default;
};

/// A pair of clocks and a way to wait. Used only from the threads of its context.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  /// Monotonic time since an arbitrary start: for deadlines.
  virtual Duration steady_now() const = 0;
  /// Time since the Unix epoch: for latencies and time stamps.
  virtual Duration wall_now() const = 0;
  /// Calls `callback` once on `executor` after `delay`, never before this function
  /// returns; a zero or negative delay posts the callback. Keep the returned Timer
  /// alive until then. When the context is destroyed first, the callback is dropped
  /// without being called.
  virtual std::unique_ptr<Timer> call_after(const boost::asio::any_io_executor& executor, Duration delay,
                                            std::function<void()> callback) = 0;
};

/// Makes `source`, which must not be null, the time of `context`. Call it before
/// anything on the context uses time; a context without one uses the system's clocks.
void install_time_source(boost::asio::execution_context& context, std::shared_ptr<TimeSource> source);

/// The time source of an executor's context. Valid as long as the context.
TimeSource& time_source(const boost::asio::any_io_executor& executor);

/// Waits `delay` on the calling coroutine's time source: for pages, models and agents
/// that take part in virtual time. Terminal cancellation ends it with operation_aborted.
boost::asio::awaitable<void> sleep_for(Duration delay);

/// How many jobs of the library's worker thread, which writes screenshots, the
/// coroutines of `context` wait for. The thread keeps real time: a virtual time source
/// that jumped meanwhile would end time limits that the job meets. Thread-safe.
std::size_t jobs_in_flight(boost::asio::execution_context& context);

}  // namespace vision::runtime
