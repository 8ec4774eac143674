#include "vision/wirein/internal/act_rails.hpp"

#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision {
namespace {

constexpr std::string_view mission_frame =
    "MULTI-STEP MISSION — you are driving this mission ONE action per response; after each action you receive a "
    "fresh screenshot to continue from (your recent actions appear in last_action). The mission brief below was "
    "written for a computer-use agent; wherever it says to say/answer/respond with a status phrase, verdict, or "
    "extracted value, that means: finish with declare_success and put that exact output in `reason` verbatim. Never "
    "type status phrases into the page.\n"
    "--- MISSION BRIEF ---\n";

constexpr std::string_view mission_end =
    "\n--- END BRIEF ---\n"
    "If the mission cannot proceed from what you can see (wrong page, target absent, captcha/human-verification), "
    "respond escalate_to_cua.";

std::string guess_reason(const std::string& what, const ActionResult& proposal, const char* consequence) {
  constexpr std::size_t reason_code_points = 160;
  return "low-confidence " + what + " (" + text::fixed(proposal.confidence, 2) + ") — " + consequence + ": " +
         std::string(text::first_code_points(proposal.reason, reason_code_points));
}

}  // namespace

std::optional<std::string> _act_mission_text(const std::optional<std::string>& mission_prompt) {
  if (!mission_prompt || mission_prompt->empty()) return {};
  std::string text;
  text.reserve(mission_frame.size() + mission_prompt->size() + mission_end.size());  // kept as long as the mission
  return text.append(mission_frame).append(*mission_prompt).append(mission_end);
}

ActionResult _act_synth(Cause cause, std::string reason) {
  ActionResult result(ActionVerb::escalate_to_cua, std::move(reason), 0.0, "");
  result.model_used = "act_loop";
  result.cause = cause;
  return result;
}

namespace detail {

Terminal hand_over(Cause cause, std::string reason) {
  return Terminal(_act_synth(cause, std::move(reason)), "escalate");
}

std::optional<Terminal> rail_for(const ActionResult& proposal, bool read_only) {
  if (proposal.action == ActionVerb::declare_failure) return Terminal(proposal, "failure");
  if (proposal.action == ActionVerb::escalate_to_cua) return Terminal(proposal, "escalate");
  if (proposal.action == ActionVerb::declare_success) {
    if (proposal.low_confidence)
      return hand_over(Cause::uncertain_success, guess_reason("success claim", proposal, "not trusted"));
    return Terminal(proposal, "success");
  }
  if (proposal.low_confidence) {
    return hand_over(Cause::uncertain_action, guess_reason(proposal.action + " proposal", proposal, "not acted on"));
  }
  if (read_only) {
    return hand_over(Cause::read_only, "read-only hotspot — vision proposed " + proposal.action + "; deferring to CUA");
  }
  return {};
}

RepeatGuard::Signature RepeatGuard::signature_of(const ActionResult& proposal) {
  const auto rounded = [](const std::optional<double>& ratio) -> Coordinate {
    if (!ratio) return "";
    return text::fixed(*ratio == 0 ? 0.0 : *ratio, 2);  // -0.0 equals 0.0
  };
  return {proposal.action, rounded(proposal.x_ratio), rounded(proposal.y_ratio), proposal.text, proposal.key};
}

int RepeatGuard::note(const ActionResult& proposal) {
  Signature signature = signature_of(proposal);
  count_ = last_ == signature ? count_ + 1 : 1;
  last_ = std::move(signature);
  return count_;
}

void Breadcrumbs::add(std::int64_t step, std::int64_t max_steps, const ActionResult& executed) {
  constexpr std::size_t reason_code_points = 120, kept = 3;
  std::string line = "step " + std::to_string(step) + "/" + std::to_string(max_steps) + ": " + executed.action;
  if (executed.x_ratio && executed.y_ratio) {
    line += "(" + text::fixed(*executed.x_ratio, 2) + "," + text::fixed(*executed.y_ratio, 2) + ")";
  }
  line.append(" — ").append(text::first_code_points(executed.reason, reason_code_points));
  lines_.reserve(kept);
  if (lines_.size() == kept) lines_.erase(lines_.begin());
  lines_.push_back(std::move(line));
}

std::string Breadcrumbs::text() const {
  std::string joined;
  for (const auto& line : lines_) {
    if (!joined.empty()) joined += " | ";
    joined += line;
  }
  return joined;
}

}  // namespace detail
}  // namespace vision
