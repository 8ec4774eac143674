#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "tests/support/virtual_time.hpp"
#include "vision/runtime/deadline.hpp"
#include "vision/runtime/entry.hpp"
#include "vision/runtime/one_shot.hpp"
#include "vision/runtime/worker.hpp"

namespace vision::runtime {
namespace {

using namespace std::chrono_literals;
using test::World;
namespace asio = boost::asio;
using ct = asio::cancellation_type;

enum class Ending { value, error, own_abort, hang };

asio::awaitable<int> operation(Ending ending, Duration takes) {
  co_await sleep_for(ending == Ending::hang ? Duration(24h) : takes);
  if (ending == Ending::error) throw std::logic_error("broken");
  if (ending == Ending::own_abort) throw boost::system::system_error(asio::error::operation_aborted);
  co_return 7;
}

// How a bounded operation ended, and when, as text.
asio::awaitable<std::string> bounded(Ending ending, Duration takes, Duration limit) {
  auto outcome = co_await with_deadline(operation(ending, takes), limit);
  if (outcome.has_value()) co_return "value";
  co_return outcome.timed_out() ? "time-out" : "error";
}

std::string run_cancelled(World& world, asio::awaitable<std::string> body, Duration when, std::vector<ct> types) {
  for (std::size_t i = 0; i < types.size(); ++i) {
    world.cancel_after(to_seconds(when + i * 1ms), types[i]);
  }
  try {
    return world.run(std::move(body));
  } catch (const boost::system::system_error& e) {
    return e.code() == asio::error::operation_aborted ? "cancelled" : e.what();
  }
}

TEST(Deadline, TellsTheEndingsApart) {
  const std::tuple<Ending, Duration, const char*, double> rows[] = {
      {Ending::value, 1s, "value", 1}, {Ending::value, 5s, "value", 5},     {Ending::value, 6s, "time-out", 5},
      {Ending::error, 1s, "error", 1}, {Ending::own_abort, 1s, "error", 1}, {Ending::hang, 0s, "time-out", 5},
      {Ending::value, 0s, "value", 0},
  };
  for (const auto& [ending, takes, expected, seconds] : rows) {
    World world;
    EXPECT_EQ(world.run(bounded(ending, takes, 5s)), expected);
    EXPECT_EQ(world.seconds(), seconds);
    EXPECT_EQ(world.time->pending(), 0u);
  }
}

TEST(Deadline, TheCallersCancellationAlwaysPasses) {
  for (const Ending ending : {Ending::value, Ending::error, Ending::own_abort, Ending::hang}) {
    for (const Duration when : {Duration(0s), Duration(1s), Duration(3s)}) {
      World world;
      EXPECT_EQ(run_cancelled(world, bounded(ending, 3s, 5s), when, {ct::terminal}), "cancelled");
      EXPECT_EQ(world.seconds(), to_seconds(when));
      EXPECT_EQ(world.time->pending(), 0u);
    }
  }
}

asio::awaitable<std::string> entered(Duration takes) {
  auto body = bounded(Ending::value, takes, 50s);
  return entry(std::move(body));
}

asio::awaitable<std::string> host_that_allows_all(Duration takes) {
  co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
  co_return co_await entered(takes);
}

TEST(Entry, EveryKindOfRequestEndsItAndNoneIsForgotten) {
  World weak, erased, filtered;
  EXPECT_EQ(run_cancelled(weak, host_that_allows_all(9s), 1s, {ct::total}), "cancelled");
  EXPECT_EQ(weak.seconds(), 1);
  EXPECT_EQ(run_cancelled(erased, entered(9s), 1s, {ct::terminal, ct::total}), "cancelled");
  EXPECT_EQ(run_cancelled(filtered, entered(9s), 1s, {ct::total}), "value");  // the host lets no such request through
}

asio::awaitable<void> settle_a_broken_thing(std::string& text) {
  auto outcome = co_await settle(operation(Ending::own_abort, 1s));
  text = outcome.error() ? "error" : "no error";
}

TEST(Settle, AnAbortNobodyAskedForIsAnError) {
  World world;
  std::string text;
  world.run(settle_a_broken_thing(text));
  EXPECT_EQ(text, "error");
}

asio::awaitable<void> run_job(std::function<void()> job) {
  co_await run_on_worker(std::move(job));
}

TEST(Worker, RunsElsewhereAndBringsTheErrorBack) {
  World world;
  std::thread::id ran_on;
  world.run(run_job([&] { ran_on = std::this_thread::get_id(); }));
  EXPECT_NE(ran_on, std::thread::id());
  EXPECT_NE(ran_on, std::this_thread::get_id());
  EXPECT_THROW(world.run(run_job([] { throw std::out_of_range("full"); })), std::out_of_range);
}

TEST(Worker, CanBeLeftByCancellationAndByItsContext) {
  std::latch leave(1), finished(2);
  const auto slow_job = [&] {
    leave.wait();
    finished.count_down();
  };
  {
    World world;
    const auto cancelled_job = [&] {
      asio::post(world.io, [&] { world.cancel.emit(ct::terminal); });
      slow_job();
    };
    EXPECT_THROW(world.run(run_job(cancelled_job)), boost::system::system_error);
  }
  {
    asio::io_context destroyed_meanwhile;
    asio::co_spawn(destroyed_meanwhile, run_job(slow_job), [](std::exception_ptr) {});
    destroyed_meanwhile.poll();
  }
  leave.count_down();
  finished.wait();  // both jobs ran to their end with nobody to tell
}

TEST(Time, DurationsATimerCanTake) {
  EXPECT_EQ(to_duration(0.5), 500ms);
  for (const double none : {0.0, -1.0, std::nan("")}) EXPECT_EQ(to_duration(none), 0s);
  for (const double huge : {1e300, static_cast<double>(INFINITY)})
    EXPECT_EQ(to_duration(huge), to_duration(100 * 365.25 * 86400));
}

}  // namespace
}  // namespace vision::runtime
