#pragma once

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "vision/runtime/internal/one_shot.hpp"
#include "vision/testing/virtual_time.hpp"

namespace vision::test {

/// A sleep that ends before or after others of the same instant, by its rank.
inline asio::awaitable<void> sleep_ranked(VirtualTime& time, Duration delay, int rank) {
  const auto executor = co_await asio::this_coro::executor;
  runtime::OneShot over(executor);
  const auto timer = time.call_after(executor, delay, rank, [&over] { over.set(); });
  co_await over.wait();
}

/// A sleep that is deaf to cancellation.
inline asio::awaitable<void> sleep_deaf(VirtualTime& time, Duration delay) {
  const auto executor = co_await asio::this_coro::executor;
  runtime::IoTimer over(executor, runtime::IoTimer::time_point::max());
  const auto timer = time.call_after(executor, delay, 0, [&over] { over.cancel(); });
  boost::system::error_code ignored;
  constexpr auto no_slot = asio::cancellation_slot();
  co_await over.async_wait(asio::bind_cancellation_slot(no_slot, asio::redirect_error(asio::use_awaitable, ignored)));
}

}  // namespace vision::test
