#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"

namespace vision {

/// The parameters of act_loop: the two required ones in the constructor, the
/// others by chained setters.
class ActLoopOptions {
 public:
  /// The flow context, which the loop copies and never changes, and the caller's
  /// name of the place in the pipeline, for records and fixture names.
  ActLoopOptions(FlowContext flow_context, std::string hotspot_id)
      : flow_context_(std::move(flow_context)), hotspot_id_(std::move(hotspot_id)) {}

  /// The mission brief, as written for a computer-use agent. Not set or empty: the
  /// model sees the default task line of the workflow context.
  ActLoopOptions& mission_prompt(std::optional<std::string> value) & {
    mission_prompt_ = std::move(value);
    return *this;
  }
  /// The client; it must outlive the call. Default: default_client().
  ActLoopOptions& vision(VisionClient& value) & {
    vision_ = &value;
    return *this;
  }
  /// The pipeline run, for records and fixture names. Default: not set.
  ActLoopOptions& run_id(std::optional<std::string> value) & {
    run_id_ = std::move(value);
    return *this;
  }
  /// Forces the heavy model in every step. Default false.
  ActLoopOptions& high_stakes(bool value) & {
    high_stakes_ = value;
    return *this;
  }
  /// The step cap. Default ACT_MAX_STEPS_DEFAULT; below 1 no step is taken.
  ActLoopOptions& max_steps(std::int64_t value) & {
    max_steps_ = value;
    return *this;
  }
  /// Asked before every step, on the event loop's thread; returning true ends the
  /// mission; an exception counts as false. Store a capturing lambda in a named
  /// variable and move it in: g++ 12 destroys one that is written inside a co_await
  /// expression twice.
  ActLoopOptions& should_abort(std::function<bool()> value) & {
    should_abort_ = std::move(value);
    return *this;
  }
  /// The same, answered later: what has not answered within the time limit of a step
  /// counts as false. Asked when `should_abort` is not set.
  ActLoopOptions& should_abort_later(std::function<boost::asio::awaitable<bool>()> value) & {
    should_abort_later_ = std::move(value);
    return *this;
  }
  /// Never touch the page: any proposed page action ends the mission. Default false.
  ActLoopOptions& read_only(bool value) & {
    read_only_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  ActLoopOptions mission_prompt(std::optional<std::string> value) && {
    return std::move(mission_prompt(std::move(value)));
  }
  ActLoopOptions vision(VisionClient& value) && { return std::move(vision(value)); }
  ActLoopOptions run_id(std::optional<std::string> value) && { return std::move(run_id(std::move(value))); }
  ActLoopOptions high_stakes(bool value) && { return std::move(high_stakes(value)); }
  ActLoopOptions max_steps(std::int64_t value) && { return std::move(max_steps(value)); }
  ActLoopOptions should_abort(std::function<bool()> value) && { return std::move(should_abort(std::move(value))); }
  ActLoopOptions should_abort_later(std::function<boost::asio::awaitable<bool>()> value) && {
    return std::move(should_abort_later(std::move(value)));
  }
  ActLoopOptions read_only(bool value) && { return std::move(read_only(value)); }
  ///@}

  ///@{
  /// The value that was set, or its default.
  const FlowContext& flow_context() const& noexcept { return flow_context_; }
  FlowContext flow_context() && noexcept { return std::move(flow_context_); }
  const std::string& hotspot_id() const noexcept { return hotspot_id_; }
  const std::optional<std::string>& mission_prompt() const noexcept { return mission_prompt_; }
  VisionClient* vision() const noexcept { return vision_; }
  const std::optional<std::string>& run_id() const noexcept { return run_id_; }
  bool high_stakes() const noexcept { return high_stakes_; }
  std::int64_t max_steps() const noexcept { return max_steps_; }
  const std::function<bool()>& should_abort() const noexcept { return should_abort_; }
  const std::function<boost::asio::awaitable<bool>()>& should_abort_later() const noexcept {
    return should_abort_later_;
  }
  bool read_only() const noexcept { return read_only_; }
  ///@}

 private:
  FlowContext flow_context_;
  std::string hotspot_id_;
  std::optional<std::string> mission_prompt_;
  VisionClient* vision_ = nullptr;
  std::optional<std::string> run_id_;
  bool high_stakes_ = false;
  std::int64_t max_steps_ = ACT_MAX_STEPS_DEFAULT;
  std::function<bool()> should_abort_;
  std::function<boost::asio::awaitable<bool>()> should_abort_later_;
  bool read_only_ = false;
};

/// Drives `page` toward the mission's goal, one model-proposed action at a time, and
/// returns the terminal result: the model's declare_success (the answer is in `reason`),
/// declare_failure or escalate_to_cua, or an escalate_to_cua of the loop's own
/// (`model_used` "act_loop") when a rail ends the mission; `cause` tells which: the step
/// cap, `should_abort`, three identical proposals in a row, a low-confidence proposal or
/// success claim, a page action in read-only mode, a screenshot-and-ask that fails or
/// together takes longer than DEFAULT_TIMEOUT_S x 2 + ACT_STEP_MARGIN_S seconds (the page
/// action is limited only by the page), an exhausted call budget, an action that the page
/// refuses. On anything but declare_success the caller runs its computer-use agent.
///
/// Appends one record per answered step and one final record to the shadow log.
///
/// Throws only what default_client() throws, when no client is given. `page` must
/// outlive the operation. If the caller is cancelled, with any cancellation type its
/// coroutine accepts, the operation ends with operation_aborted, without a final
/// record.
boost::asio::awaitable<ActionResult> act_loop(BrowserPage& page, ActLoopOptions options);

}  // namespace vision
