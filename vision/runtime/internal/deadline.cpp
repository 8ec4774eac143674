#include "vision/runtime/internal/deadline.hpp"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

namespace vision::runtime {
namespace asio = boost::asio;

asio::awaitable<void> pass_cancellation() {
  const auto state = co_await asio::this_coro::cancellation_state;
  if (state.cancelled() != asio::cancellation_type::none) {
    throw boost::system::system_error(asio::error::operation_aborted, "cancelled by the caller");
  }
}

asio::awaitable<Done> done(asio::awaitable<void> operation) {
  co_await std::move(operation);
  co_return Done();
}

namespace detail {

// Begins to wait after the other leg has begun, and so loses to it when both end
// at once. It may be cancelled before: nothing here throws for that.
asio::awaitable<void> quiet_wait(Duration limit) {
  co_await asio::this_coro::throw_if_cancelled(false);
  co_await asio::post(asio::use_awaitable);
  const auto state = co_await asio::this_coro::cancellation_state;
  if (state.cancelled() != asio::cancellation_type::none) co_return;  // a wait begun now would not hear of it
  const auto executor = co_await asio::this_coro::executor;
  co_await time_source(executor).wait(limit);
}

}  // namespace detail
}  // namespace vision::runtime
