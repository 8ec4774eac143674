#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

#include "vision/runtime/deadline.hpp"

namespace vision::runtime {

/// Takes every cancellation request as a terminal one and never forgets it: a
/// later, weaker signal would otherwise erase an earlier terminal one.
class LatchedCancellation {
 public:
  /// The filter: gives what the coroutine is to see of a request.
  boost::asio::cancellation_type_t operator()(boost::asio::cancellation_type_t requested) noexcept {
    if (requested != boost::asio::cancellation_type::none) latched_ = boost::asio::cancellation_type::terminal;
    return latched_;
  }

 private:
  boost::asio::cancellation_type_t latched_ = boost::asio::cancellation_type::none;
};

namespace detail {

template <class T>
boost::asio::awaitable<Outcome<T>> latched(boost::asio::awaitable<T> body) {
  co_await boost::asio::this_coro::reset_cancellation_state(LatchedCancellation());
  co_return co_await guard(std::move(body));
}

}  // namespace detail

/// Runs the body of a public operation with a cancellation state of its own, so
/// that any kind of request that the host lets through ends it, and the host's
/// own state is left alone. Completes when the body has ended.
template <class T>
boost::asio::awaitable<T> entry(boost::asio::awaitable<T> body) {
  const auto executor = co_await boost::asio::this_coro::executor;
  auto latched = detail::latched(std::move(body));
  Outcome<T> outcome = co_await boost::asio::co_spawn(executor, std::move(latched), boost::asio::use_awaitable);
  if (outcome.error()) std::rethrow_exception(outcome.error());
  co_return std::move(outcome.value());
}

}  // namespace vision::runtime
