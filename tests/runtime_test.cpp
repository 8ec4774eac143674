#include <gtest/gtest.h>

#include <cmath>
#include <latch>

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

TEST(Time, DurationsATimerCanTake) {
  for (const double none : {0.0, -1.0, std::nan("")}) EXPECT_EQ(to_duration(none), 0s);
  for (const double huge : {1e300, static_cast<double>(INFINITY)})
    EXPECT_EQ(to_duration(huge), to_duration(100 * 365.25 * 86400));
}

}  // namespace
}  // namespace vision::runtime
