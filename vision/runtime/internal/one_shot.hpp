#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>

namespace vision::runtime {

/// A timer on the system's steady clock, for drivers of code that keeps real time
/// itself (the HTTP library), or that has no coroutine to wait in.
using IoTimer = boost::asio::steady_timer;

/// An event that happens once and that one coroutine waits for: the way in which
/// callbacks of other libraries reach a coroutine. Lives on one executor; not
/// thread-safe. Destroying it while a coroutine waits ends the wait with
/// operation_aborted.
class OneShot {
 public:
  explicit OneShot(const boost::asio::any_io_executor& executor);

  void set();
  bool is_set() const noexcept { return *set_; }

  /// Completes once `set` was called, also before. Terminal cancellation ends it
  /// with operation_aborted.
  boost::asio::awaitable<void> wait();

 private:
  IoTimer timer_;
  std::shared_ptr<bool> set_;  // outlives us in a coroutine that waits
};

}  // namespace vision::runtime
