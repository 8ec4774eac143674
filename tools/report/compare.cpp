#include "tools/report/compare.hpp"

#include <algorithm>
#include <cmath>

#include "vision/records/action_verb.hpp"
#include "vision/text/internal/numbers.hpp"

namespace report {
namespace {

constexpr double near_enough = 0.10;

using vision::ActionVerb;

bool is_verb(std::string_view word) {
  return std::find(ActionVerb::all.begin(), ActionVerb::all.end(), word) != ActionVerb::all.end();
}

}  // namespace

std::optional<Comparison> compare(const Proposal& proposal, const Truth& truth, const Viewport& viewport) {
  if (truth.action.empty()) return std::nullopt;
  Comparison out;
  out.same_action = proposal.action == truth.action;
  if (!out.same_action) return out;
  if (!truth.x_ratio || !truth.y_ratio) {
    out.unplaced_click = proposal.action == ActionVerb::click;
    return out;
  }
  if (!proposal.x_ratio || !proposal.y_ratio) {
    if (proposal.action == ActionVerb::click) out.same_place = false;
    return out;
  }
  const double dx = std::abs(*proposal.x_ratio - *truth.x_ratio), dy = std::abs(*proposal.y_ratio - *truth.y_ratio);
  out.in_box = truth.w_ratio && truth.h_ratio;
  out.same_place = out.in_box ? dx <= *truth.w_ratio / 2 && dy <= *truth.h_ratio / 2
                              : dx <= near_enough + 1e-9 && dy <= near_enough + 1e-9;
  out.distance_px =
      std::hypot(dx * truth.viewport_w.value_or(viewport.width), dy * truth.viewport_h.value_or(viewport.height));
  return out;
}

std::optional<Truth> first_action(std::string_view agent_text) {
  const std::string_view head = agent_text.substr(0, agent_text.find(':'));
  const std::size_t blank = std::min(head.find(' '), head.size());
  if (head.size() == agent_text.size() || !is_verb(head.substr(0, blank))) return std::nullopt;
  Truth truth;
  truth.action = head.substr(0, blank);
  if (blank == head.size()) return truth;
  const std::string_view place = head.substr(blank + 1);
  const std::size_t comma = std::min(place.find(','), place.size());
  truth.x_ratio = vision::text::parse_real(place.substr(0, comma));
  truth.y_ratio = vision::text::parse_real(place.substr(std::min(comma + 1, place.size())));
  if (!truth.x_ratio || !truth.y_ratio) return std::nullopt;
  return truth;
}

Comparison judged_by_eye(const Proposal& proposal, bool agrees) {
  Comparison out;
  out.same_action = agrees;
  if (agrees && proposal.x_ratio && proposal.y_ratio) out.same_place = true;
  return out;
}

bool would_act(const Proposal& proposal) {
  return proposal.action != ActionVerb::escalate_to_cua && proposal.action != ActionVerb::declare_failure;
}

}  // namespace report
