#include "vision/client/internal/system_prompt.hpp"

#include <boost/json/object.hpp>

#include "vision/records/action_verb.hpp"

namespace vision::detail {
namespace {

namespace json = boost::json;

constexpr const char* tool_description =
    "Propose the next browser action to advance the workflow described in the user message. Choose "
    "ONE action. Coordinates are 0–1 ratios of the viewport width/height. Confidence is your honest "
    "assessment from 0 (guessing) to 1 (certain).";

constexpr const char* action_description =
    "click: click at (x_ratio, y_ratio). type: type `text` into the currently focused field. "
    "scroll: scroll by `scroll_dy_ratio` viewport heights. key: press `key` — a single key (Tab, "
    "Enter, Escape) OR a modifier chord in Playwright form (e.g. 'Control+a' to select-all, "
    "'Control+c' to copy, 'Control+v' to paste). To copy a document's text: focus it, key "
    "'Control+a', then key 'Control+c' as two consecutive steps. wait: wait `duration_ms` "
    "milliseconds. escalate_to_cua: page is unreadable / captcha / unknown — let the CUA fallback "
    "take over. declare_success: workflow goal is met (read it from the screen). declare_failure: "
    "workflow definitely failed; no further action would help.";

constexpr const char* reason_description =
    "WHY this action — a short sentence. Used for logs and becomes the next call's last_action "
    "breadcrumb.";

constexpr const char* next_expected_state_description =
    "What the screen should look like AFTER your action. V2 post-action gates use this to verify "
    "the action landed.";

json::object property(const char* type) {
  return {{"type", type}};
}

json::object described(const char* type, const char* description) {
  return {{"type", type}, {"description", description}};
}

json::object unit_interval() {
  return {{"type", "number"}, {"minimum", 0.0}, {"maximum", 1.0}};
}

json::object action_property() {
  json::array verbs;
  for (const auto verb : ActionVerb::all) verbs.emplace_back(verb);
  return {{"type", "string"}, {"enum", std::move(verbs)}, {"description", action_description}};
}

json::object input_schema() {
  json::object properties;
  properties["action"] = action_property();
  properties["x_ratio"] = unit_interval();
  properties["y_ratio"] = unit_interval();
  properties["text"] = property("string");
  properties["key"] = property("string");
  properties["scroll_dy_ratio"] = property("number");
  properties["duration_ms"] = {{"type", "integer"}, {"minimum", 0}};
  properties["reason"] = described("string", reason_description);
  properties["confidence"] = unit_interval();
  properties["next_expected_state"] = described("string", next_expected_state_description);
  return {{"type", "object"},
          {"properties", std::move(properties)},
          {"required", {"action", "reason", "confidence", "next_expected_state"}}};
}

}  // namespace

const std::string_view SYSTEM_PROMPT =
    "You guide browser automation as the smart tier-2 layer. Playwright (tier-1) already tried and "
    "failed at the current step; CUA (tier-3) is the fallback if you can't make sense of the "
    "screen. \n"
    "\n"
    "RULES:\n"
    "1. Coordinates are 0–1 ratios of the viewport, NOT pixels — the center is (0.5, 0.5) and the "
    "far-right edge is x≈1.0. NEVER return a pixel value like 1238; if you're thinking in pixels, "
    "divide by the viewport size first.\n"
    "2. If you can CLEARLY see the target, click its CENTER and report high confidence. If you "
    "CANNOT locate it, return action='escalate_to_cua' — do NOT emit a low-confidence guess at the "
    "screen edge. A clean escalation beats a wrong click (and below 0.6 confidence the caller "
    "escalates anyway).\n"
    "3. If you see a captcha (reCAPTCHA, hCaptcha, Cloudflare), return action='escalate_to_cua' "
    "immediately. Never attempt to solve.\n"
    "4. If the workflow goal is already visible on screen (e.g. the share URL is rendered), return "
    "action='declare_success' with the URL or key info in `reason`.\n"
    "5. One action per response. Sequencing across multiple screens is the caller's job.\n"
    "6. Always populate next_expected_state — it's how V2 verifies your action worked.\n"
    "\n"
    "Use the propose_action tool for your response. Do not write prose.";

const json::value& PROPOSE_ACTION_TOOL() {
  static const json::value tool = {
      {"name", "propose_action"}, {"description", tool_description}, {"input_schema", input_schema()}};
  return tool;
}

}  // namespace vision::detail
