#include "vision/runtime/deadline.hpp"

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

asio::awaitable<void> quiet_wait(Duration limit) {
  (void)co_await leg(done(sleep_for(limit)));
}

}  // namespace detail
}  // namespace vision::runtime
