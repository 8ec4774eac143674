#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <latch>
#include <thread>

#include "vision/runtime/internal/duration.hpp"
#include "vision/runtime/internal/worker.hpp"
#include "vision/testing/virtual_time.hpp"

namespace vision::runtime {
namespace {

using namespace std::chrono_literals;
using test::VirtualLoop;
namespace asio = boost::asio;

asio::awaitable<void> run_job(std::function<void()> job) {
  co_await run_on_worker(std::move(job));
}

TEST(Worker, CanBeLeftByCancellationAndByItsContext) {
  std::latch leave(1), finished(2);
  const auto slow_job = [&] {
    leave.wait();
    finished.count_down();
  };
  {
    VirtualLoop loop;
    const auto cancelled_job = [&] {
      asio::post(loop.io, [&] { loop.cancel(); });
      slow_job();
    };
    EXPECT_THROW(loop.run(run_job(cancelled_job)), boost::system::system_error);
  }
  {
    asio::io_context destroyed_meanwhile;
    asio::co_spawn(destroyed_meanwhile, run_job(slow_job), [](std::exception_ptr) {});
    destroyed_meanwhile.poll();
  }
  leave.count_down();
  finished.wait();  // both jobs ran to their end, although nothing waits for them
}

TEST(Worker, TakesNoMoreJobsThanTheBound) {
  asio::io_context io;
  std::latch entered(1), leave(1);
  const auto block = [&] {
    entered.count_down();
    leave.wait();
  };
  std::size_t done = 0, refused = 0;
  const auto count = [&](std::exception_ptr error) { ++(error ? refused : done); };
  asio::co_spawn(io, run_job(block), count);
  io.poll();
  entered.wait();
  for (std::size_t i = 0; i < max_waiting_jobs + 5; ++i) asio::co_spawn(io, run_job([] {}), count);
  io.restart();
  while (refused < 6) io.run_one();
  leave.count_down();
  io.run();
  EXPECT_EQ(done, max_waiting_jobs);
  EXPECT_EQ(refused, 6u);
}

// A child that is forked in the middle of something that another thread does, with its
// own event loop or going on with its parent's.
TEST(Worker, WorksInAForkedChildOfABusyParent) {
  std::atomic<bool> stop = false;
  const auto work_on = [&]() -> asio::awaitable<void> {
    while (!stop) co_await run_job([] {});
  };
  std::thread other([&] {
    asio::io_context io;
    for (int i = 0; i < 8; ++i) asio::co_spawn(io, work_on(), [](std::exception_ptr) {});
    io.run();
  });
  asio::io_context io;
  for (int i = 0; i < 1000; ++i) {
    asio::co_spawn(io, run_job([] {}), [](std::exception_ptr) {});
    io.restart();
    io.poll();  // the job is under way
    io.notify_fork(asio::execution_context::fork_prepare);
    const pid_t child = ::fork();
    io.notify_fork(child == 0 ? asio::execution_context::fork_child : asio::execution_context::fork_parent);
    if (child == 0) {
      asio::io_context own;
      asio::io_context& loop = i % 2 == 0 ? io : own;
      loop.restart();
      bool done = false;
      asio::co_spawn(loop, run_job([] {}), [&](std::exception_ptr) { done = true; });
      while (!done) loop.run_one();
      ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);  // hangs with its child
    EXPECT_EQ(status, 0);
    io.run();
  }
  stop = true;
  other.join();
}

TEST(Time, DurationsATimerCanTake) {
  for (const double none : {0.0, -1.0, std::nan("")}) EXPECT_EQ(to_duration(none), 0s);
  for (const double huge : {1e300, static_cast<double>(INFINITY)})
    EXPECT_EQ(to_duration(huge), to_duration(100 * 365.25 * 86400));
}

}  // namespace
}  // namespace vision::runtime
