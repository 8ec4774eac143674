#include "vision/runtime/time.hpp"

#include <boost/asio/query.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cmath>

#include "vision/runtime/internal/deadline.hpp"

namespace vision::runtime {
namespace asio = boost::asio;
namespace {

class SystemTime : public TimeSource {
 public:
  Duration steady_now() const override { return std::chrono::steady_clock::now().time_since_epoch(); }
  Duration wall_now() const override { return std::chrono::system_clock::now().time_since_epoch(); }

  asio::awaitable<void> sleep(Duration duration) override {
    IoTimer timer(co_await asio::this_coro::executor, duration);
    co_await timer.async_wait(asio::use_awaitable);
  }

  // An exception through the frames above costs more than all the rest of a time limit.
  asio::awaitable<void> wait(Duration duration) override {
    IoTimer timer(co_await asio::this_coro::executor, duration);
    boost::system::error_code cancelled;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
  }
};

class TimeService : public asio::execution_context::service {
 public:
  using key_type = TimeService;
  static asio::execution_context::id id;

  explicit TimeService(asio::execution_context& context) : service(context), source(std::make_shared<SystemTime>()) {}

  std::shared_ptr<TimeSource> source;

 private:
  void shutdown() override { source->shutdown(); }
};

asio::execution_context::id TimeService::id;

}  // namespace

asio::awaitable<void> TimeSource::wait(Duration duration) {
  (void)co_await detail::guard(done(sleep(duration)));
}

void install_time_source(asio::execution_context& context, std::shared_ptr<TimeSource> source) {
  asio::use_service<TimeService>(context).source = std::move(source);
}

TimeSource& time_source(const asio::any_io_executor& executor) {
  return *asio::use_service<TimeService>(asio::query(executor, asio::execution::context)).source;
}

asio::awaitable<void> sleep_for(Duration duration) {
  const auto executor = co_await asio::this_coro::executor;
  co_await time_source(executor).sleep(duration);
}

asio::awaitable<double> wall_seconds() {
  const auto executor = co_await asio::this_coro::executor;
  co_return to_seconds(time_source(executor).wall_now());
}

Duration to_duration(double seconds) noexcept {
  constexpr double hundred_years_s = 100 * 365.25 * 86400;
  if (!(seconds > 0)) return Duration::zero();
  const double bounded = seconds < hundred_years_s ? seconds : hundred_years_s;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(bounded));
}

double to_seconds(Duration duration) noexcept {
  return std::chrono::duration<double>(duration).count();
}

std::int64_t whole_ms(Duration duration) noexcept {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

}  // namespace vision::runtime
