#pragma once

#include <optional>
#include <string_view>

#include "tools/report/record.hpp"

namespace report {

/// In CSS pixels.
struct Viewport {
  double width = 1280;
  double height = 800;
};

/// A proposal compared with the right action.
struct Comparison {
  bool same_action = false;
  std::optional<bool> same_place;     ///< absent when the action differs or a place is unknown
  bool in_box = false;                ///< `same_place` was judged by the element's box, not by a distance of 0.10
  bool unplaced_click = false;        ///< an agreeing click whose right place is unknown
  std::optional<double> distance_px;  ///< to the middle of the right element, with `same_place`

  /// The action, and the place where it is known.
  bool right() const { return same_action && same_place.value_or(true); }
};

/// Compares a proposal with `dom_ground_truth`. Absent when the host recorded none.
/// The places agree inside the element's box when its size is known, else within
/// 0.10 of the viewport on both axes. `viewport` is for truths without one.
std::optional<Comparison> compare(const Proposal& proposal, const Truth& truth, const Viewport& viewport);

/// What an agent says it did first: "click 0.52,0.27: ..." or "type: ...", a
/// verb of the library's, perhaps a place, and a colon. Absent for any other text.
std::optional<Truth> first_action(std::string_view agent_text);

/// The decision of a person who looked at the picture. Agreement covers the place.
Comparison judged_by_eye(const Proposal& proposal, bool agrees);

/// Whether the proposal would do something if it were trusted: anything but
/// declaring failure and handing over.
bool would_act(const Proposal& proposal);

}  // namespace report
