#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

/// Help for tests: those of hosts, and the library's own. The folder vision/testing has
/// headers only, which need no test framework.
namespace vision::test {

namespace asio = boost::asio;

/// An operation that has begun on an event loop and goes on as far as the test lets it.
/// Must be destroyed before the loop, and after the operation has ended unless the loop
/// runs no further.
template <class T>
class Running {
 public:
  /// Spawns `operation`. `take_turn` runs some handlers of the loop; it is called until
  /// the operation has ended.
  Running(asio::io_context& io, asio::awaitable<T> operation, std::function<void()> take_turn)
      : take_turn_(std::move(take_turn)) {
    const auto finish = [this](std::exception_ptr error) {
      error_ = error;
      ended = true;
    };
    asio::co_spawn(io, keep(std::move(operation), value_), asio::bind_cancellation_slot(signal_.slot(), finish));
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  /// Sends the operation terminal cancellation. Call it on the loop's thread.
  void cancel() { signal_.emit(asio::cancellation_type::terminal); }
  /// Waits for the end; returns the value, once, or throws the error.
  T get() {
    if (const auto error = wait()) std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>) return std::move(*value_);
  }

  bool ended = false;  ///< whether it has a value or an error

 protected:
  /// Waits for the end; returns the error, or null.
  std::exception_ptr wait() {
    while (!ended) take_turn_();
    return error_;
  }

 private:
  using Value = std::conditional_t<std::is_void_v<T>, int, T>;

  static asio::awaitable<void> keep(asio::awaitable<T> operation, std::optional<Value>& value) {
    if constexpr (std::is_void_v<T>) {
      co_await std::move(operation);
    } else {
      value.emplace(co_await std::move(operation));
    }
  }

  const std::function<void()> take_turn_;
  asio::cancellation_signal signal_;
  std::exception_ptr error_;
  std::optional<Value> value_;
};

}  // namespace vision::test
