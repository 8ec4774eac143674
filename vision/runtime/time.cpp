#include "vision/runtime/time.hpp"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <cassert>
#include <utility>

#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/context_local.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::runtime {
namespace asio = boost::asio;
namespace {

class SystemTimer : public Timer {
 public:
  SystemTimer(const asio::any_io_executor& executor, Duration delay, std::function<void()> callback)
      : timer_(executor, delay), callback_(std::make_shared<std::function<void()>>(std::move(callback))) {
    // cancel() does not recall a handler that is queued already: whether the timer
    // still exists is asked when the handler runs.
    timer_.async_wait([alive = std::weak_ptr(callback_)](const boost::system::error_code& error) {
      const auto held = alive.lock();
      if (!error && held) (*held)();
    });
  }

 private:
  asio::steady_timer timer_;
  const std::shared_ptr<std::function<void()>> callback_;
};

class SystemTime : public TimeSource {
 public:
  Duration steady_now() const override { return std::chrono::steady_clock::now().time_since_epoch(); }
  Duration wall_now() const override { return std::chrono::system_clock::now().time_since_epoch(); }

  std::unique_ptr<Timer> call_after(const asio::any_io_executor& executor, Duration delay,
                                    std::function<void()> callback) override {
    return std::make_unique<SystemTimer>(executor, delay, std::move(callback));
  }
};

struct CurrentSource {
  std::shared_ptr<TimeSource> source = std::make_shared<SystemTime>();
};

}  // namespace

void install_time_source(asio::execution_context& context, std::shared_ptr<TimeSource> source) {
  assert(source && "a time source must not be null");
  context_local<CurrentSource>(context).source = std::move(source);
}

TimeSource& time_source(const asio::any_io_executor& executor) {
  return *context_local<CurrentSource>(executor).source;
}

asio::awaitable<void> sleep_for(Duration delay) {
  const auto executor = co_await asio::this_coro::executor;
  OneShot has_passed(executor);
  const auto timer = time_source(executor).call_after(executor, delay, [&has_passed] { has_passed.set(); });
  co_await has_passed.wait();
  // A request may have come between the end of the delay and now: nothing that is
  // awaited later need exist to tell of it.
  co_await throw_if_cancelled();
}

}  // namespace vision::runtime
