#pragma once

#include <boost/asio/awaitable.hpp>
#include <functional>
#include <optional>
#include <type_traits>
#include <variant>

/// @file
/// Calling a host's asynchronous operation of any result type.
namespace vision::runtime {

/// What the awaitable that `Fn` gives for `Args` becomes when awaited.
template <class Fn, class... Args>
using awaited_t = typename std::invoke_result_t<Fn&, Args...>::value_type;

/// `T`, or std::monostate for void.
template <class T>
using value_of = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

/// Where a result is put; empty until then.
template <class T>
using Slot = std::optional<value_of<T>>;

/// Calls `fn` inside the coroutine, so that what it throws before it suspends is
/// treated like what it throws later. All references must outlive the operation.
template <class Fn, class... Args>
boost::asio::awaitable<value_of<awaited_t<Fn, Args&...>>> call(Fn& fn, Args&... args) {
  if constexpr (std::is_void_v<awaited_t<Fn, Args&...>>) {
    co_await std::invoke(fn, args...);
    co_return std::monostate();
  } else {
    co_return co_await std::invoke(fn, args...);
  }
}

/// Puts what `fn` gives into `slot`.
template <class Fn, class T>
boost::asio::awaitable<void> await_into(Fn& fn, std::optional<T>& slot) {
  slot.emplace(co_await call(fn));
}

}  // namespace vision::runtime
