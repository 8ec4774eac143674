#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <memory>
#include <utility>

#include "vision/runtime/internal/deadline.hpp"

namespace vision::runtime {

namespace detail {

template <class T>
struct Unboxed {
  using type = T;
  static T take(T& value) { return std::move(value); }
};
template <class T>
struct Unboxed<std::unique_ptr<T>> {
  using type = T;
  static T take(std::unique_ptr<T>& value) { return std::move(*value); }
};

}  // namespace detail

/// Runs the body of a public operation with a cancellation state of its own, so
/// that any kind of request that the host lets through ends it, and the host's
/// own state is left alone. Completes when the body has ended. A body may give a
/// large result by std::unique_ptr, never null: by value it would have a place in
/// every coroutine that hands it on.
template <class T>
boost::asio::awaitable<typename detail::Unboxed<T>::type> entry(boost::asio::awaitable<T> body) {
  const auto executor = co_await boost::asio::this_coro::executor;
  auto latched = detail::guard(std::move(body), detail::Start::latched);
  Outcome<T> outcome = co_await boost::asio::co_spawn(executor, std::move(latched), boost::asio::use_awaitable);
  if (outcome.error()) std::rethrow_exception(outcome.error());
  co_return detail::Unboxed<T>::take(outcome.value());
}

}  // namespace vision::runtime
