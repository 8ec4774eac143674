#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/this_coro.hpp>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "vision/runtime/internal/duration.hpp"

/// @file
/// How an operation is awaited. `try_await`, `with_deadline`, `gather` and
/// `with_own_cancellation` run an operation with a cancellation state of its own:
///
/// - Every cancellation request to the caller is forwarded as terminal, including a
///   later, weaker one, and is latched. The caller's own state is left alone.
/// - Code that resets its cancellation state, in order to clean up, affects only its own operation.
/// - The call returns when the operation has ended, cancelled or not.
///
/// `try_await`, `with_deadline` and `gather` are for operations that may run host code:
/// a caller that was cancelled meanwhile gets operation_aborted, however the operation
/// ended. An operation_aborted that was not caused by cancelling the caller is an
/// ordinary error of the operation. Every mode, execute_action and every VisionClient
/// operation runs behind `with_own_cancellation`: the body alone determines the
/// outcome.
///
/// This is the only place in the library with a broad catch around an await.
namespace vision::runtime {

/// How an operation ended: with a value, an error, or (with_deadline only) at its
/// time limit.
template <class T>
class Outcome {
 public:
  using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

  bool has_value() const noexcept { return state_.index() == 1; }
  /// True when the limit ended the operation before it had a value.
  bool timed_out() const noexcept { return state_.index() == 3; }
  /// The error; null when there is none, and for a time-out.
  std::exception_ptr error() const { return state_.index() == 2 ? std::get<2>(state_) : nullptr; }

  /// The value. Throws the error when the operation failed. Must not be called after a time-out.
  Value& value() {
    if (const auto failure = error()) std::rethrow_exception(failure);
    return std::get<1>(state_);
  }

  ///@{
  /// Set when the operation ends; with_deadline then replaces an error by a time-out if
  /// its limit has passed.
  void set_value(Value value) { state_.template emplace<1>(std::move(value)); }
  void set_error(std::exception_ptr error) { state_.template emplace<2>(std::move(error)); }
  void set_timed_out() { state_.template emplace<3>(); }
  ///@}

 private:
  struct Expired {};
  std::variant<std::monostate, Value, std::exception_ptr, Expired> state_;
};

namespace detail {

/// What happened while operations were awaited.
struct Awaited {
  bool was_cancelled = false;     ///< the caller was
  bool has_limit_passed = false;  ///< before the operations had ended
};

/// Runs one or two operations that do not throw, the first one started first, each
/// spawned with a cancellation signal of its own; sends them terminal cancellation
/// when the caller is cancelled or `limit` has passed; waits until all have ended.
/// The second operation is not started if the caller was cancelled while the first was starting.
boost::asio::awaitable<Awaited> run(boost::asio::awaitable<void> first,
                                    std::optional<boost::asio::awaitable<void>> second, std::optional<Duration> limit);

/// Throws operation_aborted when the caller was cancelled.
void throw_if_cancelled(Awaited awaited);

template <class T>
boost::asio::awaitable<void> capture(boost::asio::awaitable<T> operation, Outcome<T>& outcome) {
  try {
    if constexpr (std::is_void_v<T>) {
      co_await std::move(operation);
      outcome.set_value({});
    } else {
      outcome.set_value(co_await std::move(operation));
    }
  } catch (...) {
    outcome.set_error(std::current_exception());
  }
  // Asio itself performs one more await after a spawned coroutine that never suspended.
  // If a cancellation is pending, that await would throw outside all our handlers and
  // out of run().
  co_await boost::asio::this_coro::throw_if_cancelled(false);
}

}  // namespace detail

/// Runs `operation` and returns its value or its error, of whatever type. Throws only
/// operation_aborted, if the caller was cancelled.
template <class T>
boost::asio::awaitable<Outcome<T>> try_await(boost::asio::awaitable<T> operation) {
  Outcome<T> outcome;
  auto captured = detail::capture(std::move(operation), outcome);
  detail::throw_if_cancelled(co_await detail::run(std::move(captured), std::nullopt, std::nullopt));
  co_return outcome;
}

/// Runs `operation` for at most `limit`: when the limit passes, the operation is
/// cancelled and waited for. Returns the operation's value, even when it arrives at
/// or after the limit; otherwise a time-out if the limit has passed, and the
/// operation's error if it has not.
template <class T>
boost::asio::awaitable<Outcome<T>> with_deadline(boost::asio::awaitable<T> operation, Duration limit) {
  Outcome<T> outcome;
  auto captured = detail::capture(std::move(operation), outcome);
  const auto awaited = co_await detail::run(std::move(captured), std::nullopt, limit);
  detail::throw_if_cancelled(awaited);
  if (awaited.has_limit_passed && !outcome.has_value()) outcome.set_timed_out();
  co_return outcome;
}

/// Runs two operations at once, the first one started first, and waits for both;
/// an error in one does not affect the other.
template <class A, class B>
boost::asio::awaitable<std::pair<Outcome<A>, Outcome<B>>> gather(boost::asio::awaitable<A> first,
                                                                 boost::asio::awaitable<B> second) {
  std::pair<Outcome<A>, Outcome<B>> outcomes;
  auto captured_first = detail::capture(std::move(first), outcomes.first);
  std::optional captured_second = detail::capture(std::move(second), outcomes.second);
  detail::throw_if_cancelled(co_await detail::run(std::move(captured_first), std::move(captured_second), std::nullopt));
  co_return outcomes;
}

/// Runs the body of a public operation and returns its value or throws its error. A
/// request that arrives after the body's last await has no effect; whatever the body
/// did and recorded stands.
template <class T>
boost::asio::awaitable<T> with_own_cancellation(boost::asio::awaitable<T> body) {
  Outcome<T> outcome;
  auto captured = detail::capture(std::move(body), outcome);
  co_await detail::run(std::move(captured), std::nullopt, std::nullopt);
  if constexpr (std::is_void_v<T>) {
    outcome.value();
  } else {
    co_return std::move(outcome.value());
  }
}

/// Throws operation_aborted if the calling coroutine has been cancelled. Call it before
/// code that must not run after a cancellation and does not itself await.
boost::asio::awaitable<void> throw_if_cancelled();

}  // namespace vision::runtime
