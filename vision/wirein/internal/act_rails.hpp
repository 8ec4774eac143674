#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "vision/records/action_result.hpp"

/// The act loop's rules, free of I/O.
namespace vision {

/// The task prompt of a mission: the caller's brief, unedited, inside the fixed
/// frame that says how a mission is driven and answered. Absent when the brief is
/// absent or empty.
std::optional<std::string> _act_mission_text(const std::optional<std::string>& mission_prompt);

/// A terminal that the loop makes itself: escalate_to_cua with confidence 0 and
/// "act_loop" as the model.
ActionResult _act_synth(Cause cause, std::string reason);

namespace detail {

/// How a mission ended, and the word for it in the final record.
struct Terminal {
  Terminal(ActionResult r, std::string_view o) : result(std::move(r)), outcome(o) {}
  ActionResult result;
  std::string_view outcome;  ///< "success", "failure" or "escalate"
};

/// A terminal of the loop's own making.
Terminal hand_over(Cause cause, std::string reason);

/// Whether a proposal ends the mission before anything is done: a verdict, a
/// guess (low confidence), or any page action in read-only mode.
std::optional<Terminal> rail_for(const ActionResult& proposal, bool read_only);

/// Counts identical proposals in a row. Identical means the same action, text,
/// key and coordinates to the hundredth.
class RepeatGuard {
 public:
  /// The length of the run that `proposal` continues or begins.
  int note(const ActionResult& proposal);

 private:
  using Coordinate = std::string;  // to the hundredth; empty when absent
  using Signature =
      std::tuple<std::string, Coordinate, Coordinate, std::optional<std::string>, std::optional<std::string>>;
  static Signature signature_of(const ActionResult& proposal);

  std::optional<Signature> last_;
  int count_ = 0;
};

/// The short history that the next request shows to the model: the last three
/// executed steps.
class Breadcrumbs {
 public:
  void add(std::int64_t step, std::int64_t max_steps, const ActionResult& executed);
  std::string text() const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace detail
}  // namespace vision
