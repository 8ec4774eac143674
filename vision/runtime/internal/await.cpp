#include "vision/runtime/internal/await.hpp"

#include <array>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <memory>

#include "vision/runtime/internal/one_shot.hpp"

namespace vision::runtime {
namespace asio = boost::asio;
namespace {

using Token = const asio::use_awaitable_t<>;
using Signature = void(std::exception_ptr, detail::Awaited);
using Handler = asio::async_result<asio::use_awaitable_t<>, Signature>::handler_type;

// What one coroutine waits for. It owns that coroutine, through the handler, and is
// owned by the operations' completion handlers: when the context is destroyed, all of
// it goes with the operations, whichever is destroyed first.
class Group : public std::enable_shared_from_this<Group> {
 public:
  explicit Group(Handler handler) : handler_(std::move(handler)) {}

  void start(asio::awaitable<void> first, std::optional<asio::awaitable<void>> second, std::optional<Duration> limit) {
    // Weak: the slot belongs to the coroutine that we own. Its host may still send
    // requests while the context is being destroyed.
    if (auto slot = asio::get_associated_cancellation_slot(handler_); slot.is_connected()) {
      slot.assign([group = weak_from_this()](asio::cancellation_type_t type) {
        if (const auto self = group.lock(); self && type != asio::cancellation_type::none) self->cancel();
      });
    }
    const auto executor = handler_.get_executor();
    running_ = second ? 2 : 1;
    spawn(executor, std::move(first), signals_[0]);
    if (second && awaited_.was_cancelled) {
      --running_;
    } else if (second) {
      spawn(executor, std::move(*second), signals_[1]);
    }
    // After the operation has started, so that of two timers that end together the
    // operation's own comes first and its value counts.
    if (limit) {
      limit_ = time_source(executor).call_after(executor, *limit, [this] {
        const auto keep = shared_from_this();  // what is stopped may end at once, and we with it
        awaited_.has_limit_passed = true;
        stop();
      });
    }
  }

 private:
  // An operation's completion handler. Asio sends a cancellation to the operation at
  // once because this type has no associated executor. To what bind_cancellation_slot
  // returns it dispatches the cancellation, and what is queued then can outlive the
  // signal.
  struct Ended {
    using cancellation_slot_type = asio::cancellation_slot;
    cancellation_slot_type get_cancellation_slot() const noexcept { return slot; }
    void operator()(const std::exception_ptr& error) const { group->one_ended(error); }

    std::shared_ptr<Group> group;
    asio::cancellation_slot slot;
  };

  // Runs the operation up to where it first suspends. Asio completes no spawned
  // coroutine before co_spawn has returned.
  void spawn(const asio::any_io_executor& executor, asio::awaitable<void> operation,
             asio::cancellation_signal& signal) {
    asio::co_spawn(executor, std::move(operation), Ended{shared_from_this(), signal.slot()});
  }

  void cancel() {
    awaited_.was_cancelled = true;
    stop();
  }

  void stop() {
    for (auto& signal : signals_) signal.emit(asio::cancellation_type::terminal);
  }

  void one_ended(const std::exception_ptr& error) {
    if (error) error_ = error;  // Asio's own, out of memory for example
    if (--running_ > 0) return;
    limit_.reset();
    asio::get_associated_cancellation_slot(handler_).clear();
    Handler resume = std::move(handler_);
    std::move(resume)(error_, awaited_);
  }

  Handler handler_;
  std::array<asio::cancellation_signal, 2> signals_;
  std::unique_ptr<Timer> limit_;
  std::exception_ptr error_;
  int running_ = 0;
  detail::Awaited awaited_;
};

struct StartGroup {
  void operator()(Handler handler, asio::awaitable<void> first, std::optional<asio::awaitable<void>> second,
                  std::optional<Duration> limit) const {
    std::make_shared<Group>(std::move(handler))->start(std::move(first), std::move(second), limit);
  }
};

}  // namespace

namespace detail {

asio::awaitable<Awaited> run(asio::awaitable<void> first, std::optional<asio::awaitable<void>> second,
                             std::optional<Duration> limit) {
  return asio::async_initiate<Token, Signature>(StartGroup(), asio::use_awaitable, std::move(first), std::move(second),
                                                limit);
}

void throw_if_cancelled(Awaited awaited) {
  if (!awaited.was_cancelled) return;
  throw boost::system::system_error(asio::error::operation_aborted, "cancelled by the caller");
}

}  // namespace detail

asio::awaitable<void> throw_if_cancelled() {
  const auto state = co_await asio::this_coro::cancellation_state;
  detail::throw_if_cancelled({.was_cancelled = state.cancelled() != asio::cancellation_type::none});
}

}  // namespace vision::runtime
