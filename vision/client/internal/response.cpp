#include "vision/client/internal/response.hpp"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include "vision/client/internal/prompt.hpp"
#include "vision/records/errors.hpp"
#include "vision/records/internal/coercion.hpp"
#include "vision/settings/settings.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace {

namespace json = boost::json;

const json::value* member(const json::value* object, std::string_view name) {
  const auto* map = object ? object->if_object() : nullptr;
  return map ? map->if_contains(name) : nullptr;
}

bool is_text(const json::value* value, std::string_view text) {
  return value && value->is_string() && std::string_view(value->get_string()) == text;
}

std::int64_t token_count(const json::value* usage, std::string_view name) {
  return _opt_int(member(usage, name)).value_or(0);
}

// The first call of the tool, or null. Null content means no blocks.
const json::value* find_tool_call(const json::value& response) {
  const auto* content = member(&response, "content");
  if (!content) throw InvalidResponse("the response has no content");
  if (text::is_blank(*content)) return nullptr;
  const auto* blocks = content->if_array();
  if (!blocks) throw InvalidResponse("the response's content is not a list");
  for (const auto& block : *blocks) {
    if (is_text(member(&block, "type"), "tool_use") && is_text(member(&block, "name"), "propose_action")) return &block;
  }
  return nullptr;
}

// The call's arguments; a blank input means none.
const json::value* tool_input(const json::value& call) {
  const auto* input = member(&call, "input");
  if (!input) throw InvalidResponse("the propose_action call has no input");
  if (!input->is_object() && !text::is_blank(*input))
    throw InvalidResponse("the propose_action call's input is not a map");
  return input;
}

double confidence_of(const json::value* input) {
  const auto* value = member(input, "confidence");
  if (!value) return 0.0;
  if (const auto confidence = _opt_float(value)) return *confidence;
  throw ConversionError("the model's confidence is not a number: " + detail::excerpt(*value));
}

std::string text_of(const json::value* input, std::string_view name, std::string_view fallback = "") {
  const auto* value = member(input, name);
  return value ? text::plain_text(*value) : std::string(fallback);
}

}  // namespace

ActionResult _failure_result(Cause cause, std::string reason, const std::string& model, double latency_ms,
                             std::int64_t in_tok, std::int64_t out_tok) {
  ActionResult result(ActionVerb::declare_failure, std::move(reason), 0.0, "");
  result.model_used = model;
  result.latency_ms = latency_ms;
  result.input_tokens = in_tok;
  result.output_tokens = out_tok;
  result.cause = cause;
  return result;
}

ActionResult _parse_response(const json::value& response, const std::string& model, double latency_ms,
                             const std::optional<ImgMeta>& img_meta) {
  const auto* usage = member(&response, "usage");
  const std::int64_t in_tok = token_count(usage, "input_tokens");
  const std::int64_t out_tok = token_count(usage, "output_tokens");
  const auto* call = find_tool_call(response);
  if (!call) {
    return _failure_result(Cause::no_tool_call, "model did not return propose_action tool call", model, latency_ms,
                           in_tok, out_tok);
  }
  const auto* input = tool_input(*call);

  ActionResult result(text_of(input, "action", ActionVerb::declare_failure), text_of(input, "reason"),
                      confidence_of(input), text_of(input, "next_expected_state"));
  result.x_ratio = _norm_ratio(member(input, "x_ratio"), img_meta ? img_meta->width_css : 0);
  result.y_ratio = _norm_ratio(member(input, "y_ratio"), img_meta ? img_meta->height_css : 0);
  result.text = _opt_str(member(input, "text"));
  result.key = _opt_str(member(input, "key"));
  result.scroll_dy_ratio = _opt_float(member(input, "scroll_dy_ratio"));
  result.duration_ms = _opt_int(member(input, "duration_ms"));
  result.low_confidence = result.confidence < LOW_CONFIDENCE_THRESHOLD;
  result.model_used = model;
  result.latency_ms = latency_ms;
  result.input_tokens = in_tok;
  result.output_tokens = out_tok;
  return result;
}

}  // namespace vision
