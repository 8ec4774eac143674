#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "vision/records/action_verb.hpp"

namespace vision {

/// Who says what a result says: the model, or the library because a call or a mission
/// ended without the model's word. Not part of any record; `reason` says the same in
/// words.
enum class Cause {
  model_answer,  ///< the model's own action or verdict

  ///@{
  /// The model call failed: a declare_failure.
  call_timed_out,    ///< no response within the time-out
  transport_error,   ///< no usable response: connection, rate limit or server error, the retry included
  unexpected_error,  ///< any other error of the request, or a response that cannot be read
  no_tool_call,      ///< a response without a propose_action call: refused, cut short, or plain text
  ///@}

  ///@{
  /// act_loop gave up: an escalate_to_cua.
  step_cap,           ///< `max_steps` steps without a verdict
  aborted,            ///< `should_abort` returned true
  repeated_proposal,  ///< ACT_REPEAT_LIMIT identical proposals in a row
  uncertain_action,   ///< a page action proposed with low confidence
  uncertain_success,  ///< success declared with low confidence
  read_only,          ///< a page action proposed in a read-only mission
  step_timed_out,     ///< screenshot and model call took longer than a step may
  step_failed,        ///< the screenshot failed, or the flow context's "attempts" cannot be read
  budget_exhausted,   ///< the call budget of the run is spent
  action_failed,      ///< the page could not carry the action out, or the action lacks a field
  ///@}
};

/// The outcome of a vision call: one action for the page, or one verdict for the
/// caller. A value type.
///
/// An optional field that is not set differs from zero and from the empty text.
/// Only results parsed from a model's answer have their ratios clamped to 0..1.
struct ActionResult {
  /// Default-constructible only because Asio requires it; no operation returns this state.
  ActionResult() = default;
  /// The four members that every result has; the others are set one by one.
  ActionResult(std::string_view verb, std::string justification, double certainty, std::string expected_state)
      : action(verb),
        reason(std::move(justification)),
        confidence(certainty),
        next_expected_state(std::move(expected_state)) {}

  std::string action;               ///< an ActionVerb, or whatever the model sent instead
  std::string reason;               ///< short justification; for declare_success the answer read from the screen
  double confidence = 0;            ///< the model's own assessment, 0 to 1; not clamped
  std::string next_expected_state;  ///< the screen after the action, as the model expects it

  std::optional<double> x_ratio;            ///< click position as a fraction of the viewport width
  std::optional<double> y_ratio;            ///< click position as a fraction of the viewport height
  std::optional<std::string> text;          ///< text to type
  std::optional<std::string> key;           ///< key or chord to press, "Control+a"
  std::optional<double> scroll_dy_ratio;    ///< signed scroll distance in viewport heights; positive is down
  std::optional<std::int64_t> duration_ms;  ///< wait in milliseconds

  bool low_confidence = false;     ///< a parsed result with confidence below LOW_CONFIDENCE_THRESHOLD
  std::string model_used;          ///< the model that answered
  double latency_ms = 0.0;         ///< wall time of the call in milliseconds
  std::int64_t input_tokens = 0;   ///< as reported by the vendor
  std::int64_t output_tokens = 0;  ///< as reported by the vendor

  Cause cause = Cause::model_answer;  ///< how the call or the mission ended

  /// Equal in every member.
  friend bool operator==(const ActionResult&, const ActionResult&) = default;
};

}  // namespace vision
