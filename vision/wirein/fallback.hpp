#pragma once

#include <boost/asio/awaitable.hpp>
#include <exception>
#include <string>
#include <utility>
#include <variant>

#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/runtime/internal/awaited.hpp"
#include "vision/runtime/internal/deadline.hpp"
#include "vision/runtime/internal/entry.hpp"

namespace vision {

/// The parameters of with_vision_fallback: the required one in the constructor,
/// the others by chained setters.
class FallbackOptions {
 public:
  /// The flow context; the model sees a copy with the failure in "context_hint".
  explicit FallbackOptions(FlowContext flow_context) : flow_context_(std::move(flow_context)) {}

  /// The client; it must outlive the call. Default: default_client().
  FallbackOptions& vision(VisionClient& value) {
    vision_ = &value;
    return *this;
  }
  /// Forces the heavy model. Default false.
  FallbackOptions& high_stakes(bool value = true) {
    high_stakes_ = value;
    return *this;
  }

  ///@{
  /// The value that was set, or its default.
  const FlowContext& flow_context() const noexcept { return flow_context_; }
  VisionClient* vision() const noexcept { return vision_; }
  bool high_stakes() const noexcept { return high_stakes_; }
  ///@}

 private:
  FlowContext flow_context_;
  VisionClient* vision_ = nullptr;
  bool high_stakes_ = false;
};

/// What with_vision_fallback gives, by the way it took: 0, the value of the
/// scripted step (std::monostate for void); 1, vision's declare_success; 2, the
/// value of the computer-use agent.
template <class Primary, class Agent>
using FallbackResult = std::variant<runtime::value_of<Primary>, ActionResult, runtime::value_of<Agent>>;

/// Stands for an absent computer-use agent.
struct NoFallback {
  /// Never called.
  boost::asio::awaitable<void> operator()(BrowserPage&, const FlowContext&, const std::string&) const;
};

namespace detail {

enum class NextStep { verdict, hand_over, run_again };

/// What vision made of a scripted step's failure.
struct Rescue {
  Rescue(NextStep n, ActionResult r, FlowContext c) : next(n), result(std::move(r)), context(std::move(c)) {}
  NextStep next;
  ActionResult result;
  FlowContext context;  ///< the caller's, with the failure in "context_hint"
};

/// Whether there is no computer-use agent: none given, an empty std::function, a
/// null pointer.
template <class CuaFn>
bool is_absent(const CuaFn& cua_fallback) {
  if constexpr (std::is_same_v<CuaFn, NoFallback>) {
    return true;
  } else if constexpr (requires { static_cast<bool>(cua_fallback == nullptr); }) {
    return cua_fallback == nullptr;
  } else {
    return false;
  }
}

VisionClient& client_of(const FallbackOptions& options);

/// Asks vision about the failure and carries out the action it proposes.
boost::asio::awaitable<Rescue> rescue(VisionClient& client, BrowserPage& page, const FallbackOptions& options,
                                      std::exception_ptr failure);

template <class PrimaryFn, class CuaFn>
using fallback_result_t =
    FallbackResult<runtime::awaited_t<PrimaryFn>,
                   runtime::awaited_t<CuaFn, BrowserPage&, const FlowContext&, const std::string&>>;

template <class PrimaryFn, class CuaFn>
boost::asio::awaitable<fallback_result_t<PrimaryFn, CuaFn>> fallback_body(BrowserPage& page, PrimaryFn& primary_fn,
                                                                          const FallbackOptions& options,
                                                                          CuaFn& cua_fallback) {
  using Result = fallback_result_t<PrimaryFn, CuaFn>;
  VisionClient& client = client_of(options);
  auto first = co_await runtime::settle(runtime::call(primary_fn));
  if (first.has_value()) co_return Result(std::in_place_index<0>, std::move(first.value()));

  Rescue rescued = co_await rescue(client, page, options, first.error());
  if (rescued.next == NextStep::verdict) co_return Result(std::in_place_index<1>, std::move(rescued.result));
  if (rescued.next == NextStep::run_again) {
    auto again = co_await runtime::isolated(runtime::call(primary_fn));
    co_return Result(std::in_place_index<0>, std::move(again));
  }
  if (is_absent(cua_fallback)) std::rethrow_exception(first.error());
  const FlowContext& context = rescued.context;
  const std::string& reason = rescued.result.reason;
  auto handed_over = co_await runtime::isolated(runtime::call(cua_fallback, page, context, reason));
  co_return Result(std::in_place_index<2>, std::move(handed_over));
}

}  // namespace detail

/// Runs the scripted step `primary_fn`. Only when it fails: asks vision once, and
/// carries out the proposed action and runs `primary_fn` exactly once more; or
/// gives vision's declare_success, whatever its confidence; or, when vision
/// escalates, declares failure or is not confident, gives what
/// `cua_fallback(page, context, reason)` gives, and without one throws the step's
/// first error again, unchanged.
///
/// Both callables give awaitables of any type, void and move-only types included.
/// Name a lambda with captures before the call and move it in: g++ 12 destroys one
/// that is written inside a co_await expression twice.
/// `primary_fn` must stand a second run after a partial first one. `context` is a
/// copy of the flow context whose "context_hint" names the failure.
///
/// Throws what default_client() throws when no client is given, before
/// `primary_fn` runs; BudgetExceeded; an error of the screenshots, of the action,
/// of the second run or of `cua_fallback`, unchanged. Cancellation passes. `page`
/// must outlive the operation.
template <class PrimaryFn, class CuaFn = NoFallback>
boost::asio::awaitable<detail::fallback_result_t<PrimaryFn, CuaFn>> with_vision_fallback(BrowserPage& page,
                                                                                         PrimaryFn primary_fn,
                                                                                         FallbackOptions options,
                                                                                         CuaFn cua_fallback = CuaFn()) {
  auto body = detail::fallback_body(page, primary_fn, options, cua_fallback);
  auto result = co_await runtime::entry(std::move(body));
  co_return result;
}

}  // namespace vision
