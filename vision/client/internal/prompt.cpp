#include "vision/client/internal/prompt.hpp"

#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <cstdint>

#include "vision/records/errors.hpp"
#include "vision/settings/settings.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision {
namespace {

namespace json = boost::json;

// The context keys that the model sees, in the order in which it sees them.
constexpr std::string_view rendered_keys[] = {
    "workflow_name", "phase",    "current_step", "last_action",       "expected_outcome",
    "attempts",      "platform", "context_hint", "forbidden_actions", "success_signals",
};

bool equals_zero(const json::value& value) {
  if (value.is_bool()) return !value.get_bool();
  return value.is_number() && value.to_number<double>() == 0;
}

// What stands for "no attempt yet".
bool counts_as_zero(const json::value& value) {
  return text::is_blank(value) || equals_zero(value);
}

bool at_least_two(const json::value& attempts) {
  if (counts_as_zero(attempts) || attempts.is_bool()) return false;
  if (attempts.is_number() && std::isfinite(attempts.to_number<double>())) return attempts.to_number<double>() >= 2;
  if (const auto* text = attempts.if_string()) {
    if (const auto number = text::parse_integer(*text)) return *number >= 2;
  }
  throw ConversionError("flow_context \"attempts\" cannot be read as an integer: " + detail::excerpt(attempts));
}

std::string default_task(const FlowContext& flow_context) {
  return "Advance the " + detail::context_text(flow_context, "workflow_name", "workflow") +
         " workflow. Current step: " + detail::context_text(flow_context, "current_step", "unknown") +
         ". Goal: " + detail::context_text(flow_context, "expected_outcome", "see workflow_name above") + ".";
}

bool wants_heavy_model(const FlowContext& flow_context) {
  const auto* phase = flow_context.if_contains("phase");
  if (phase && equals_zero(*phase)) return true;
  const auto* workflow = flow_context.if_contains("workflow_name");
  if (workflow && workflow->is_string()) {
    const std::string_view name = workflow->get_string();
    if (name == "phase0_login_verify" || name == "captcha_detect") return true;
  }
  const auto* attempts = flow_context.if_contains("attempts");
  return attempts && at_least_two(*attempts);
}

}  // namespace

namespace detail {

std::string context_text(const FlowContext& flow_context, std::string_view key, std::string_view fallback) {
  const auto* value = flow_context.if_contains(key);
  return value ? text::plain_text(*value) : std::string(fallback);
}

std::string excerpt(const json::value& value) {
  constexpr std::size_t shown = 200;
  return std::string(text::first_code_points(text::plain_text(value), shown));
}

}  // namespace detail

std::string _pick_model(const FlowContext& flow_context, bool high_stakes, const std::string& default_model) {
  return high_stakes || wants_heavy_model(flow_context) ? MODEL_OPUS() : default_model;
}

std::string _build_user_message(const FlowContext& flow_context, const std::optional<std::string>& prompt,
                                const ImgMeta& img_meta) {
  constexpr std::size_t usual_size = 1500;
  std::string out;
  out.reserve(usual_size + (prompt ? prompt->size() : 0));
  out += "# Workflow context\n";
  for (const auto key : rendered_keys) {
    const auto* value = flow_context.if_contains(key);
    if (!value || text::is_blank(*value)) continue;
    out.append(key).append(": ").append(text::plain_text(*value)).append("\n");
  }
  out.append("\n# Viewport\n").append(std::to_string(img_meta.width_css)).append("×");
  out.append(std::to_string(img_meta.height_css)).append(" CSS pixels (DPR ").append(text::fixed(img_meta.dpr, 1));
  out += ")\n\n# Task\n";
  if (prompt && !prompt->empty()) {
    out += *prompt;
  } else {
    out += default_task(flow_context);
  }
  return out;
}

}  // namespace vision
