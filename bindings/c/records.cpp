#include "bindings/c/records.hpp"

#include <boost/json/value_from.hpp>

namespace vision::c {
namespace json = boost::json;
namespace {

template <class T>
json::value or_null(const std::optional<T>& value) {
  return value ? json::value_from(*value) : json::value();
}

json::object counts(const Counter& counter) {
  json::object out;
  for (const auto& [key, count] : counter) out[key] = count;
  return out;
}

const char* name_of(Cause cause) {
  switch (cause) {
    case Cause::model_answer: break;
    case Cause::call_timed_out: return "call_timed_out";
    case Cause::transport_error: return "transport_error";
    case Cause::unexpected_error: return "unexpected_error";
    case Cause::no_tool_call: return "no_tool_call";
    case Cause::step_cap: return "step_cap";
    case Cause::aborted: return "aborted";
    case Cause::repeated_proposal: return "repeated_proposal";
    case Cause::uncertain_action: return "uncertain_action";
    case Cause::uncertain_success: return "uncertain_success";
    case Cause::read_only: return "read_only";
    case Cause::step_timed_out: return "step_timed_out";
    case Cause::step_failed: return "step_failed";
    case Cause::budget_exhausted: return "budget_exhausted";
    case Cause::action_failed: return "action_failed";
  }
  return "model_answer";
}

}  // namespace

json::object to_json(const ActionResult& result) {
  return {{"action", result.action},
          {"reason", result.reason},
          {"confidence", result.confidence},
          {"next_expected_state", result.next_expected_state},
          {"x_ratio", or_null(result.x_ratio)},
          {"y_ratio", or_null(result.y_ratio)},
          {"text", or_null(result.text)},
          {"key", or_null(result.key)},
          {"scroll_dy_ratio", or_null(result.scroll_dy_ratio)},
          {"duration_ms", or_null(result.duration_ms)},
          {"low_confidence", result.low_confidence},
          {"model_used", result.model_used},
          {"latency_ms", result.latency_ms},
          {"input_tokens", result.input_tokens},
          {"output_tokens", result.output_tokens},
          {"cause", name_of(result.cause)}};
}

json::object to_json(const ImgMeta& meta) {
  return {{"width_css", meta.width_css},
          {"height_css", meta.height_css},
          {"dpr", meta.dpr},
          {"captured_at", meta.captured_at}};
}

json::object to_json(const VisionMetrics& metrics) {
  return {{"call_count", metrics.call_count},
          {"total_input_tokens", metrics.total_input_tokens},
          {"total_output_tokens", metrics.total_output_tokens},
          {"latencies_ms", json::value_from(metrics.latencies_ms)},
          {"failures_by_reason", counts(metrics.failures_by_reason)},
          {"by_model", counts(metrics.by_model)},
          {"p95", metrics.p95()},
          {"estimated_cost_usd", metrics.estimated_cost_usd()}};
}

ActionResult action_result_from(Options members) {
  ActionResult result(members.required(&Options::text, "action"), members.text("reason").value_or(""),
                      members.number("confidence").value_or(0.0), members.text("next_expected_state").value_or(""));
  result.x_ratio = members.number("x_ratio");
  result.y_ratio = members.number("y_ratio");
  result.text = members.text("text");
  result.key = members.text("key");
  result.scroll_dy_ratio = members.number("scroll_dy_ratio");
  result.duration_ms = members.integer("duration_ms");
  result.low_confidence = members.flag("low_confidence").value_or(false);
  result.model_used = members.text("model_used").value_or("");
  result.latency_ms = members.number("latency_ms").value_or(0.0);
  result.input_tokens = members.integer("input_tokens").value_or(0);
  result.output_tokens = members.integer("output_tokens").value_or(0);
  (void)members.text("cause");
  members.finish();
  return result;
}

ImgMeta img_meta_from(Options members) {
  const ImgMeta meta(members.required(&Options::integer, "width_css"),
                     members.required(&Options::integer, "height_css"), members.required(&Options::number, "dpr"),
                     members.required(&Options::number, "captured_at"));
  members.finish();
  return meta;
}

}  // namespace vision::c
