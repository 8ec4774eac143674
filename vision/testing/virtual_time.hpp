#pragma once

#include <algorithm>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "vision/runtime/time.hpp"
#include "vision/testing/running.hpp"

/// @file
/// Virtual time: a mission with pauses, retries and time limits of minutes passes in
/// milliseconds, and the same way every time.
///
///     vision::test::VirtualLoop loop;
///     vision::test::ScriptedPage page;
///     auto model = std::make_shared<vision::test::ScriptedModel>();
///     model->answer(vision::test::proposal("declare_success", 0.9), 1.8);
///     vision::VisionClient client(model);
///     vision::ActLoopOptions mission({}, "site");
///     const auto verdict = loop.run(vision::act_loop(page, mission.vision(client)));
///     // verdict.latency_ms == 1800, loop.seconds() == 1.8
///
/// Use VirtualLoop rather than a loop of your own around VirtualTime: a screenshot that
/// is stored as a fixture is written by another thread, in real time. A loop that jumps
/// to the next timer as soon as it has no handler to run jumps over the end of that
/// write, into a time limit. VirtualLoop waits for the thread first (jobs_in_flight).
/// It cannot know of other threads, sockets or browsers: with those, use real time.
namespace vision::test {

using runtime::Duration;

/// Seconds as a duration; more than a hundred years is a hundred years.
inline Duration seconds_of(double seconds) {
  constexpr double hundred_years = 100 * 365.25 * 86400;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(std::min(seconds, hundred_years)));
}

/// Waits on the time source of the calling coroutine, virtual or not. Terminal
/// cancellation ends it with operation_aborted.
inline asio::awaitable<void> pause(double seconds) {
  return runtime::sleep_for(seconds_of(seconds));
}

/// Time that passes only when it is told to. Not thread-safe: it belongs to one loop.
/// Make it with std::make_shared, and install it with runtime::install_time_source.
class VirtualTime : public runtime::TimeSource, public std::enable_shared_from_this<VirtualTime> {
 public:
  /// Where the wall clock starts by default: 2025-11-16T19:05:00Z.
  static constexpr Duration wall_start = std::chrono::seconds(1763319900);

  /// `start` is the first wall_now(), since the Unix epoch. steady_now() starts at zero.
  explicit VirtualTime(Duration start = wall_start) : start_(start) {}

  Duration steady_now() const override { return now_; }
  Duration wall_now() const override { return start_ + now_; }

  /// A timer of rank 0.
  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay,
                                             std::function<void()> callback) override {
    return call_after(executor, delay, 0, std::move(callback));
  }
  /// The same with a rank: of the timers of one instant those of lower rank fire first,
  /// and of one rank those that were set first.
  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay, int rank,
                                             std::function<void()> callback) {
    const auto shared = std::make_shared<std::function<void()>>(std::move(callback));
    const Key key = add(delay, rank, [executor, alive = std::weak_ptr(shared)] {
      asio::post(executor, [alive] {
        if (const auto held = alive.lock()) (*held)();
      });
    });
    return std::make_unique<VirtualTimer>(weak_from_this(), key, shared);
  }
  /// Calls `action` then, within advance(): for what a test does at an instant of its own,
  /// such as cancelling just before (rank -1) or after (rank 1) a time limit.
  void at(Duration from_now, int rank, std::function<void()> action) { add(from_now, rank, std::move(action)); }

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
    return timers_.empty() ? seconds_of(1e300) : std::get<0>(timers_.begin()->first) - now_;
  }

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

  Key add(Duration delay, int rank, std::function<void()> action) {
    const Key key{now_ + std::max(delay, Duration::zero()), rank, ++last_id_};
    timers_.emplace(key, std::move(action));
    return key;
  }

  const Duration start_;
  Duration now_{0};
  std::map<Key, std::function<void()>> timers_;
  std::uint64_t last_id_ = 0;
};

/// One event loop on virtual time. Time passes while `run` runs, and only when no
/// handler is ready and the library's worker thread has nothing to do for this loop.
class VirtualLoop {
 public:
  /// `start` is where the wall clock starts.
  explicit VirtualLoop(Duration start = VirtualTime::wall_start) : time(std::make_shared<VirtualTime>(start)) {
    runtime::install_time_source(io, time);
  }

  asio::io_context io;                      ///< the loop; a test may spawn and post on it
  const std::shared_ptr<VirtualTime> time;  ///< its clock
  /// Cancels the operation that runs. Call it only while one runs.
  std::function<void()> cancel;

  /// Runs `operation` to its end; returns its value or throws its error. Throws
  /// std::logic_error when it waits for something that never comes: no handler is ready,
  /// no timer set, and no other thread holds work for the loop.
  template <class T>
  T run(asio::awaitable<T> operation) {
    Running<T> running(io, std::move(operation), [this] { take_turn(); });
    cancel = [&] { running.cancel(); };
    return running.get();
  }

  /// How much time has passed since the loop was made.
  double seconds() const { return std::chrono::duration<double>(time->steady_now()).count(); }

 private:
  void take_turn() {
    io.restart();
    if (io.poll_one() > 0 || (runtime::jobs_in_flight(io) == 0 && time->advance())) return;
    io.restart();
    if (io.run_one() == 0) throw std::logic_error("the operation waits for something that never comes");
  }
};

}  // namespace vision::test
