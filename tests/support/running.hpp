#pragma once

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <functional>
#include <optional>

#include "vision/text/internal/error_text.hpp"

namespace vision::test {

namespace asio = boost::asio;

/// An operation that runs on an event loop while the test goes on.
template <class T>
class Running {
 public:
  /// `take_turn` runs some handlers of the loop; it is called until the operation has ended.
  Running(asio::io_context& io, asio::awaitable<T> operation, std::function<void()> take_turn)
      : take_turn_(std::move(take_turn)) {
    const auto finish = [this](std::exception_ptr error) {
      error_ = error;
      ended = true;
    };
    asio::co_spawn(io, keep(std::move(operation), value_), asio::bind_cancellation_slot(signal_.slot(), finish));
  }

  void cancel() { signal_.emit(asio::cancellation_type::terminal); }
  /// Waits for the end; returns the value or throws the error.
  T get() {
    if (const auto error = wait()) std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>) return std::move(*value_);
  }
  /// Waits for the end; returns "Kind: message" of the error, or "no error".
  std::string error() {
    const auto error = wait();
    return error ? text::full_exception_text(error) : "no error";
  }

  bool ended = false;

 protected:
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
