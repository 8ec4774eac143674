#pragma once

#include <boost/asio/awaitable.hpp>
#include <cassert>
#include <functional>
#include <string>
#include <utility>
#include <variant>

#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/wirein/internal/host_callable.hpp"

namespace vision {

/// The parameters of with_vision_fallback: the required one in the constructor,
/// the others by chained setters.
class FallbackOptions {
 public:
  /// The flow context; the model sees a copy with the failure in "context_hint".
  explicit FallbackOptions(FlowContext flow_context) : flow_context_(std::move(flow_context)) {}

  /// The client; it must outlive the call. Default: default_client().
  FallbackOptions& vision(VisionClient& value) & {
    vision_ = &value;
    return *this;
  }
  /// Forces the heavy model. Default false.
  FallbackOptions& high_stakes(bool value) & {
    high_stakes_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  FallbackOptions vision(VisionClient& value) && { return std::move(vision(value)); }
  FallbackOptions high_stakes(bool value) && { return std::move(high_stakes(value)); }
  ///@}

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

/// Which path a call of with_vision_fallback took.
enum class FallbackWay {
  step,     ///< the scripted step succeeded in its first run
  rescued,  ///< it succeeded in its second run, after one action by vision (an unknown verb does nothing)
  verdict,  ///< vision declared success
  agent,    ///< the computer-use agent took over
};

/// Placeholder type for calls without an agent.
struct NoFallback {};

/// What with_vision_fallback returns: the path it took, and what that path yielded.
/// `Step` and `Agent` are what the two callables' awaitables yield.
template <class Step, class Agent>
class FallbackResult {
 public:
  /// Default-constructible only because Asio requires it; no operation returns this state.
  FallbackResult() = default;

  /// The path that was taken; hosts count these.
  FallbackWay way() const noexcept { return way_; }
  /// Whether one action by vision made the scripted step succeed.
  bool is_rescued() const noexcept { return way_ == FallbackWay::rescued; }

  ///@{
  /// What the scripted step yielded, first or second run; vision's declare_success;
  /// what the agent yielded. Each throws std::bad_variant_access when another path was
  /// taken. A callable that yields nothing has no accessor, and neither has a missing
  /// agent.
  auto& step() requires(!std::is_void_v<Step>) { return std::get<1>(value_); }
  const auto& step() const requires(!std::is_void_v<Step>) { return std::get<1>(value_); }
  const ActionResult& verdict() const { return std::get<2>(value_); }
  auto& agent() requires(!std::is_void_v<Agent> && !std::is_same_v<Agent, NoFallback>) { return std::get<3>(value_); }
  const auto& agent() const requires(!std::is_void_v<Agent> && !std::is_same_v<Agent, NoFallback>) {
    return std::get<3>(value_);
  }
  ///@}

  ///@{
  /// A result of each path; `way` of a step is `step` or `rescued`. For the library and
  /// for hosts' tests.
  static FallbackResult of_step(detail::stored_t<Step> value, FallbackWay way) {
    assert(way == FallbackWay::step || way == FallbackWay::rescued);
    return FallbackResult(way, std::in_place_index<1>, std::move(value));
  }
  static FallbackResult of_verdict(ActionResult value) {
    return FallbackResult(FallbackWay::verdict, std::in_place_index<2>, std::move(value));
  }
  static FallbackResult of_agent(detail::stored_t<Agent> value) {
    return FallbackResult(FallbackWay::agent, std::in_place_index<3>, std::move(value));
  }
  ///@}

 private:
  template <std::size_t I, class Value>
  FallbackResult(FallbackWay way, std::in_place_index_t<I> index, Value value)
      : way_(way), value_(index, std::move(value)) {}

  FallbackWay way_ = FallbackWay::step;
  std::variant<std::monostate, detail::stored_t<Step>, ActionResult, detail::stored_t<Agent>> value_;
};

namespace detail {

using RunStep = std::function<boost::asio::awaitable<void>()>;
using RunAgent = std::function<boost::asio::awaitable<void>(BrowserPage&, const FlowContext&, const std::string&)>;

/// The path that a call took, and vision's verdict if it was `verdict`.
struct FallbackEnding {
  FallbackWay way = FallbackWay::step;
  ActionResult verdict;
};

/// The wrapper without the types of what its callables yield. An empty `run_agent`
/// means that there is no agent.
boost::asio::awaitable<FallbackEnding> run_fallback(BrowserPage& page, RunStep run_step, FallbackOptions options,
                                                    RunAgent run_agent);

template <class CuaFn>
concept FallbackAgent =
    std::same_as<CuaFn, NoFallback> || AsyncCallable<CuaFn, BrowserPage&, const FlowContext&, const std::string&>;

template <class CuaFn>
struct AgentValue {
  using type = awaited_t<CuaFn, BrowserPage&, const FlowContext&, const std::string&>;
};
template <>
struct AgentValue<NoFallback> {
  using type = NoFallback;
};

/// Whether there is no agent: an empty std::function or a null pointer.
template <class CuaFn>
bool is_absent(const CuaFn& cua_fallback) {
  if constexpr (requires { static_cast<bool>(cua_fallback == nullptr); }) {
    return cua_fallback == nullptr;
  } else {
    return false;
  }
}

}  // namespace detail

/// Runs the scripted step `primary_fn`. If it fails, asks vision once:
///
/// - Vision proposes an action with confidence: executes it and runs `primary_fn`
///   exactly once more.
/// - Vision declares success: returns that verdict, whatever its confidence.
/// - Vision escalates, declares failure or is not confident: returns what
///   `cua_fallback(page, context, reason)` yields; without an agent, rethrows the step's
///   first error unchanged.
///
/// There is no pause between the action and the second run, no limit on the screenshots
/// and the action, and a proposed wait runs in full.
///
/// Both callables return awaitables of any type, void and move-only types included; an
/// empty std::function or a null pointer means that there is no agent. Store a
/// capturing lambda in a named variable and move it in: g++ 12 destroys one that is
/// written inside a co_await expression twice. It must be safe to run `primary_fn`
/// again after a partial first run. `context` is a copy of the flow context whose
/// "context_hint" names the failure.
///
/// Throws what default_client() throws when no client is given, before `primary_fn`
/// runs; BudgetExceeded; ConversionError when "attempts" in the flow context is not an
/// integer; an error of the screenshots, of the action, of the second run or of
/// `cua_fallback`, unchanged. None of these leads to `cua_fallback`. If the caller is
/// cancelled, with any cancellation type its coroutine accepts, the operation ends with
/// operation_aborted. `page` must outlive the operation.
template <detail::AsyncCallable PrimaryFn, detail::FallbackAgent CuaFn = NoFallback>
boost::asio::awaitable<FallbackResult<detail::awaited_t<PrimaryFn>, typename detail::AgentValue<CuaFn>::type>>
with_vision_fallback(BrowserPage& page, PrimaryFn primary_fn, FallbackOptions options, CuaFn cua_fallback = CuaFn()) {
  using Agent = typename detail::AgentValue<CuaFn>::type;
  using Result = FallbackResult<detail::awaited_t<PrimaryFn>, Agent>;
  std::optional<detail::stored_t<detail::awaited_t<PrimaryFn>>> step;
  std::optional<detail::stored_t<Agent>> agent;
  detail::RunStep run_step = [&] { return detail::await_into(step, primary_fn); };
  detail::RunAgent run_agent;
  if constexpr (!std::is_same_v<CuaFn, NoFallback>) {
    if (!detail::is_absent(cua_fallback)) {
      run_agent = [&](BrowserPage& on, const FlowContext& context, const std::string& reason) {
        return detail::await_into(agent, cua_fallback, on, context, reason);
      };
    }
  }
  auto ending = co_await detail::run_fallback(page, std::move(run_step), std::move(options), std::move(run_agent));
  if (ending.way == FallbackWay::verdict) co_return Result::of_verdict(std::move(ending.verdict));
  if (ending.way == FallbackWay::agent) co_return Result::of_agent(std::move(*agent));
  co_return Result::of_step(std::move(*step), ending.way);
}

}  // namespace vision
