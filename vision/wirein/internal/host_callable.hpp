// Internal: installed only because the templates of the modes need it. May change with
// every release.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <concepts>
#include <functional>
#include <optional>
#include <type_traits>
#include <variant>

namespace vision::detail {

template <class T>
struct AwaitableValue {};
template <class T, class Executor>
struct AwaitableValue<boost::asio::awaitable<T, Executor>> {
  using type = T;
};

/// What the awaitable that `Fn` returns for `Args` yields.
template <class Fn, class... Args>
using awaited_t = typename AwaitableValue<std::invoke_result_t<Fn&, Args...>>::type;

/// A callable that can be called with `Args` and returns a boost::asio::awaitable.
template <class Fn, class... Args>
concept AsyncCallable = std::invocable<Fn&, Args...> && requires {
  typename awaited_t<Fn, Args...>;
};

/// `T`, or std::monostate for void.
template <class T>
using stored_t = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

/// Calls `fn` and puts what it yields into `slot`. The call happens inside the
/// coroutine: what `fn` throws before it suspends is treated like what it throws
/// later. All references must outlive the operation.
template <class Value, class Fn, class... Args>
boost::asio::awaitable<void> await_into(std::optional<Value>& slot, Fn& fn, Args&... args) {
  if constexpr (std::is_void_v<awaited_t<Fn, Args&...>>) {
    co_await std::invoke(fn, args...);
    slot.emplace();
  } else {
    slot.emplace(co_await std::invoke(fn, args...));
  }
}

}  // namespace vision::detail
