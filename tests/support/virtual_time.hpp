#pragma once

#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "tests/support/running.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/one_shot.hpp"
#include "vision/runtime/internal/worker.hpp"
#include "vision/runtime/time.hpp"

namespace vision::test {

using runtime::Duration;

inline asio::awaitable<void> pause(double seconds) {
  co_await runtime::sleep_for(runtime::to_duration(seconds));
}

/// Returns `value` once `operation` has succeeded.
template <class T>
asio::awaitable<T> with_value(asio::awaitable<void> operation, T value) {
  co_await std::move(operation);
  co_return value;
}

/// Time that passes only when nothing else can happen.
class VirtualTime : public runtime::TimeSource, public std::enable_shared_from_this<VirtualTime> {
 public:
  Duration steady_now() const override { return now_; }
  Duration wall_now() const override { return wall_start + now_; }

  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay,
                                             std::function<void()> callback) override {
    return call_after(executor, delay, 0, std::move(callback));
  }
  /// The same; of the timers of one instant those of lower rank fire first.
  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay, int rank,
                                             std::function<void()> callback) {
    const Key key{now_ + std::max(delay, Duration::zero()), rank, ++last_id_};
    const auto shared = std::make_shared<std::function<void()>>(std::move(callback));
    timers_.emplace(key, [executor, alive = std::weak_ptr(shared)] {
      asio::post(executor, [alive] {
        if (const auto held = alive.lock()) (*held)();
      });
    });
    return std::make_unique<VirtualTimer>(weak_from_this(), key, shared);
  }
  asio::awaitable<void> sleep_ranked(Duration delay, int rank) {
    const auto executor = co_await asio::this_coro::executor;
    runtime::OneShot over(executor);
    const auto timer = call_after(executor, delay, rank, [&over] { over.set(); });
    co_await over.wait();
  }
  /// Deaf to cancellation.
  asio::awaitable<void> sleep_deaf(Duration delay) {
    const auto executor = co_await asio::this_coro::executor;
    runtime::IoTimer over(executor, runtime::IoTimer::time_point::max());
    const auto timer = call_after(executor, delay, 0, [&over] { over.cancel(); });
    boost::system::error_code ignored;
    constexpr auto no_slot = asio::cancellation_slot();
    co_await over.async_wait(asio::bind_cancellation_slot(no_slot, asio::redirect_error(asio::use_awaitable, ignored)));
  }
  /// Calls `action` then, within advance().
  void at(Duration from_now, int rank, std::function<void()> action) {
    timers_.emplace(Key{now_ + std::max(from_now, Duration::zero()), rank, ++last_id_}, std::move(action));
  }

  /// Jumps to the earliest timer and fires it; returns false when there is none.
  bool advance() {
    if (timers_.empty()) return false;
    auto next = timers_.extract(timers_.begin());
    now_ = std::max(now_, std::get<0>(next.key()));
    next.mapped()();
    return true;
  }

  /// How long until the earliest timer; a hundred years when there is none.
  Duration until_next() const {
    return timers_.empty() ? runtime::to_duration(1e300) : std::get<0>(timers_.begin()->first) - now_;
  }

  static constexpr Duration wall_start = std::chrono::seconds(1763319900);  // 2025-11-16T19:05:00Z

 private:
  using Key = std::tuple<Duration, int, std::uint64_t>;  // when, rank, and in which order set

  struct VirtualTimer : runtime::Timer {
    VirtualTimer(std::weak_ptr<VirtualTime> t, Key k, std::shared_ptr<std::function<void()>> c)
        : time(std::move(t)), key(k), callback(std::move(c)) {}
    ~VirtualTimer() override {
      if (const auto held = time.lock()) held->timers_.erase(key);
    }
    const std::weak_ptr<VirtualTime> time;
    const Key key;
    const std::shared_ptr<std::function<void()>> callback;
  };

  Duration now_{0};
  std::map<Key, std::function<void()>> timers_;
  std::uint64_t last_id_ = 0;
};

/// One event loop on virtual time.
class VirtualLoop {
 public:
  VirtualLoop() : time(std::make_shared<VirtualTime>()) { runtime::install_time_source(io, time); }

  asio::io_context io;
  std::shared_ptr<VirtualTime> time;
  /// Cancels the running operation. Call it only while one runs.
  std::function<void()> cancel;

  /// Runs `operation` to its end; returns its value or throws its error.
  template <class T>
  T run(asio::awaitable<T> operation) {
    Running<T> running(io, std::move(operation), [this] { take_turn(); });
    cancel = [&] { running.cancel(); };
    return running.get();
  }

  double seconds() const { return runtime::to_seconds(time->steady_now()); }

 private:
  void take_turn() {
    io.restart();
    if (io.poll_one() > 0 || (runtime::jobs_in_flight(io) == 0 && time->advance())) return;
    io.restart();
    if (io.run_one() == 0) throw std::logic_error("the operation waits for something that never comes");
  }
};

}  // namespace vision::test
