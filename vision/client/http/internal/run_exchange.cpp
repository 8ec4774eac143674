#include "vision/client/http/internal/run_exchange.hpp"

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <type_traits>

#include "vision/runtime/internal/context_local.hpp"

namespace vision::detail::http {
namespace asio = boost::asio;
using boost::system::error_code;

namespace {

// The driver of one context.
class ContextDriver {
 public:
  std::shared_ptr<CurlDriver> get(const asio::any_io_executor& executor) {
    const std::lock_guard lock(mutex_);
    if (!driver_) driver_ = std::make_shared<CurlDriver>(executor);
    return driver_;
  }
  void shutdown() {
    if (driver_) driver_->close();
  }
  void forked() {
    if (driver_) driver_->forked();
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<CurlDriver> driver_;
};

// The driver serves a whole context, and must not queue behind the strand of the
// caller that happens to be the first.
asio::any_io_executor without_strand(const asio::any_io_executor& executor) {
  if (const auto* strand = executor.target<asio::strand<asio::io_context::executor_type>>()) {
    return strand->get_inner_executor();
  }
  if (const auto* strand = executor.target<asio::strand<asio::any_io_executor>>()) {
    return without_strand(strand->get_inner_executor());
  }
  return executor;
}

// The asynchronous operation behind `run`: gives the driver a completion that resumes
// the waiting coroutine on its own executor.
struct StartExchange {
  template <class Handler>
  void operator()(Handler&& handler, std::shared_ptr<CurlDriver> driver, std::shared_ptr<Exchange> exchange) const {
    auto slot = asio::get_associated_cancellation_slot(handler);
    if (slot.is_connected()) {
      // Weak, because a slot keeps its handler after the operation has ended.
      slot.assign([driver = std::weak_ptr(driver), exchange = std::weak_ptr(exchange)](asio::cancellation_type_t type) {
        const auto [d, e] = std::pair(driver.lock(), exchange.lock());
        if (d && e && type != asio::cancellation_type::none) d->cancel(e.get());
      });
    }
    auto work = asio::make_work_guard(handler);
    // Shared, because std::function copies what it holds, and a handler cannot be copied.
    auto shared = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
    // `driver` is a copy: another thread may resume the coroutine, and destroy all that
    // owns the driver, before `start` returns.
    driver->start(std::move(exchange), [shared = std::move(shared), work = std::move(work)](error_code error) {
      asio::post(work.get_executor(), [shared, error] {
        auto resume = std::move(*shared);
        std::move(resume)(error);
      });
    });
  }
};

}  // namespace

std::shared_ptr<CurlDriver> driver_of(const asio::any_io_executor& executor) {
  {
    // A context shuts its services down in the reverse order of their creation, so
    // those that the driver uses must exist before it.
    const runtime::IoTimer timer(executor);
    const asio::posix::stream_descriptor descriptor(executor);
  }
  return runtime::context_local<ContextDriver>(executor).get(without_strand(executor));
}

asio::awaitable<void> run(std::shared_ptr<CurlDriver> driver, std::shared_ptr<Exchange> exchange) {
  return asio::async_initiate<const asio::use_awaitable_t<>, void(error_code)>(StartExchange(), asio::use_awaitable,
                                                                               std::move(driver), std::move(exchange));
}

}  // namespace vision::detail::http
