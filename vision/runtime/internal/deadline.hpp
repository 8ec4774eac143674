#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "vision/runtime/time.hpp"

/// @file
/// How an operation ended, told apart once and in one order. This is the only
/// place of the library with a broad catch around an await; it lets the
/// caller's cancellation out and nothing else.
namespace vision::runtime {

/// A value, the error that ended the operation, or a time-out.
template <class T>
class Outcome {
 public:
  Outcome() = default;  // only so that Asio can hold one; never handed out
  ///@{
  /// An outcome of each kind. `error` must not be null.
  static Outcome of(T value) {
    if constexpr (boxed) {
      return Outcome(State(std::in_place_index<1>, std::make_unique<T>(std::move(value))));
    } else {
      return Outcome(State(std::in_place_index<1>, std::move(value)));
    }
  }
  static Outcome failed(std::exception_ptr error) { return Outcome(State(std::in_place_index<2>, std::move(error))); }
  static Outcome expired() { return Outcome(State(std::in_place_index<3>)); }
  ///@}

  ///@{
  /// Of which kind it is; neither for an error.
  bool has_value() const noexcept { return state_.index() == 1; }
  bool timed_out() const noexcept { return state_.index() == 3; }
  ///@}
  /// The value. Throws std::bad_variant_access when there is none.
  T& value() {
    if constexpr (boxed) {
      return *std::get<1>(state_);
    } else {
      return std::get<1>(state_);
    }
  }
  /// Null unless the operation failed.
  std::exception_ptr error() const { return state_.index() == 2 ? std::get<2>(state_) : nullptr; }

 private:
  // A large value would have a place in every coroutine that hands the outcome on.
  static constexpr bool boxed = sizeof(T) > 64;
  struct Expired {};
  using State =
      std::variant<std::monostate, std::conditional_t<boxed, std::unique_ptr<T>, T>, std::exception_ptr, Expired>;
  explicit Outcome(State state) : state_(std::move(state)) {}
  State state_;
};

/// The value type that stands for void.
using Done = std::monostate;

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

/// Throws operation_aborted when the calling coroutine has been cancelled.
boost::asio::awaitable<void> pass_cancellation();

namespace detail {

boost::asio::awaitable<void> quiet_wait(Duration limit);

// How a guarded operation begins. A leg of a group starts once the whole group has:
// what the caller cancels from within host code before that would reach no leg.
enum class Start { at_once, as_leg, latched };

template <class T>
boost::asio::awaitable<Outcome<T>> guard(boost::asio::awaitable<T> operation, Start start = Start::at_once) {
  if (start == Start::as_leg) co_await boost::asio::post(boost::asio::use_awaitable);
  if (start == Start::latched) co_await boost::asio::this_coro::reset_cancellation_state(LatchedCancellation());
  std::optional<Outcome<T>> outcome;  // no assignment: T may have none
  try {
    outcome.emplace(Outcome<T>::of(co_await std::move(operation)));
  } catch (...) {
    outcome.emplace(Outcome<T>::failed(std::current_exception()));
  }
  // A spawned coroutine that never suspended awaits once more inside Asio. Had a
  // cancellation come meanwhile, that would throw past every catch, out of the
  // event loop.
  co_await boost::asio::this_coro::throw_if_cancelled(false);
  co_return std::move(*outcome);
}

template <class T>
auto leg(boost::asio::awaitable<T> operation) {
  return guard(std::move(operation), Start::as_leg);
}

}  // namespace detail

/// Runs `operation` with no limit. In this order: throws operation_aborted when
/// the caller was cancelled; else gives the value; else the operation's own
/// error, of whatever type. An operation_aborted that the caller did not ask for
/// is an ordinary error. The operation has a cancellation state of its own: host
/// code that resets it, in order to clean up, does not undo the cancellation.
template <class T>
boost::asio::awaitable<Outcome<T>> settle(boost::asio::awaitable<T> operation) {
  const auto executor = co_await boost::asio::this_coro::executor;
  auto guarded = detail::guard(std::move(operation));
  Outcome<T> outcome = co_await boost::asio::co_spawn(executor, std::move(guarded), boost::asio::use_awaitable);
  co_await pass_cancellation();
  co_return outcome;
}

/// Runs host code like `settle` does and passes its error on.
template <class T>
boost::asio::awaitable<T> isolated(boost::asio::awaitable<T> operation) {
  Outcome<T> outcome = co_await settle(std::move(operation));
  if (outcome.error()) std::rethrow_exception(outcome.error());
  co_return std::move(outcome.value());
}

/// Runs `operation` for at most `limit`. In this order: throws operation_aborted
/// when the caller was cancelled; else gives the value, even one that arrives in
/// the turn in which the limit ends; else a time-out; else the operation's own
/// error. When it returns the operation has ended: on a time-out or a
/// cancellation it is sent terminal cancellation and waited for.
template <class T>
boost::asio::awaitable<Outcome<T>> with_deadline(boost::asio::awaitable<T> operation, Duration limit) {
  namespace asio = boost::asio;
  const auto executor = co_await asio::this_coro::executor;
  auto legs = asio::experimental::make_parallel_group(
      asio::co_spawn(executor, detail::leg(std::move(operation)), asio::deferred),
      asio::co_spawn(executor, detail::quiet_wait(limit), asio::deferred));
  auto [order, spawn_error, outcome, wait_error] =
      co_await legs.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
  co_await pass_cancellation();
  if (spawn_error) std::rethrow_exception(spawn_error);
  if (outcome.has_value()) co_return std::move(outcome);
  if (order[0] == 1) co_return Outcome<T>::expired();
  co_return std::move(outcome);
}

/// Runs two operations at once, the first one started first, and waits until
/// both have ended; neither's error disturbs the other. Throws operation_aborted
/// when the caller was cancelled, which both are sent.
template <class A, class B>
boost::asio::awaitable<std::pair<Outcome<A>, Outcome<B>>> both(boost::asio::awaitable<A> first,
                                                               boost::asio::awaitable<B> second) {
  namespace asio = boost::asio;
  const auto executor = co_await asio::this_coro::executor;
  auto legs =
      asio::experimental::make_parallel_group(asio::co_spawn(executor, detail::leg(std::move(first)), asio::deferred),
                                              asio::co_spawn(executor, detail::leg(std::move(second)), asio::deferred));
  auto [order, first_error, a, second_error, b] =
      co_await legs.async_wait(asio::experimental::wait_for_all(), asio::use_awaitable);
  co_await pass_cancellation();
  if (first_error) std::rethrow_exception(first_error);
  if (second_error) std::rethrow_exception(second_error);
  co_return std::pair<Outcome<A>, Outcome<B>>(std::move(a), std::move(b));
}

/// Lets a void operation be settled or bounded like one that has a value.
boost::asio::awaitable<Done> done(boost::asio::awaitable<void> operation);

}  // namespace vision::runtime
