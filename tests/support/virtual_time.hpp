#pragma once

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "tests/support/running.hpp"
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
class VirtualTime : public runtime::TimeSource {
 public:
  explicit VirtualTime(asio::io_context& io) : io_(io) {}

  Duration steady_now() const override { return now_; }
  Duration wall_now() const override { return wall_start + now_; }

  asio::awaitable<void> sleep(Duration duration) override { return sleep_ranked(duration, 0); }
  /// The same; at one instant, timers of lower rank fire first.
  asio::awaitable<void> sleep_ranked(Duration duration, int rank) {
    co_await async_sleep(duration, rank, asio::use_awaitable);
  }
  /// The same, ignoring cancellation.
  asio::awaitable<void> sleep_deaf(Duration duration) {
    co_await async_sleep(duration, 0, asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
  }

  asio::awaitable<void> wait(Duration duration) override {
    boost::system::error_code cancelled;
    co_await async_sleep(duration, 0, asio::redirect_error(asio::use_awaitable, cancelled));
  }

  /// Runs `action` at that time, within advance().
  void at(Duration from_now, int rank, std::function<void()> action) {
    timers_.emplace(key(from_now, rank), [action = std::move(action)](auto) { action(); });
  }

  /// Jumps to the earliest timer and fires it; returns false when there is none.
  bool advance() {
    if (timers_.empty()) return false;
    const Key next = timers_.begin()->first;
    now_ = std::max(now_, std::get<0>(next));
    finish(next, {});
    return true;
  }

  /// How long until the earliest timer; a hundred years when there is none.
  Duration until_next() const {
    return timers_.empty() ? runtime::to_duration(1e300) : std::get<0>(timers_.begin()->first) - now_;
  }

  static constexpr Duration wall_start = std::chrono::seconds(1763319900);  // 2025-11-16T19:05:00Z

 private:
  using Complete = std::function<void(boost::system::error_code)>;
  using Key = std::tuple<Duration, int, std::uint64_t>;  // when, rank, and in which order set

  // What waits is destroyed with the event loop, not with the last owner of the clock.
  void shutdown() noexcept override { std::exchange(timers_, {}); }

  Key key(Duration from_now, int rank) { return {now_ + std::max(from_now, Duration::zero()), rank, ++last_id_}; }

  template <class Token>
  asio::awaitable<void> async_sleep(Duration duration, int rank, Token token) {
    return asio::async_initiate<Token, void(boost::system::error_code)>(
        [this](auto handler, const Key& when) { this->start(std::move(handler), when); }, token, key(duration, rank));
  }

  template <class Handler>
  void start(Handler handler, const Key& key) {
    auto slot = asio::get_associated_cancellation_slot(handler);
    auto shared = std::make_shared<Handler>(std::move(handler));
    timers_.emplace(key, [this, shared](auto error) {
      asio::post(io_, [shared, error] {
        Handler moved = std::move(*shared);
        std::move(moved)(error);
      });
    });
    if (slot.is_connected()) slot.assign([this, key](auto) { finish(key, asio::error::operation_aborted); });
  }

  // A late cancellation does not find a timer that has already fired.
  void finish(Key key, boost::system::error_code error) {
    const auto timer = timers_.find(key);
    if (timer == timers_.end()) return;
    const Complete complete = std::move(timer->second);
    timers_.erase(timer);
    complete(error);
  }

  asio::io_context& io_;
  Duration now_{0};
  std::map<Key, Complete> timers_;
  std::uint64_t last_id_ = 0;
};

/// One event loop on virtual time.
class VirtualLoop {
 public:
  VirtualLoop() : time(std::make_shared<VirtualTime>(io)) { runtime::install_time_source(io, time); }

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
