#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "examples/local_model/picture.hpp"

namespace local_model {

/// The one action that the model answers with. Ratios are fractions of the
/// picture's size.
struct Proposal {
  std::string action;
  std::string reason;
  double confidence = 0;
  std::string next_expected_state;
  std::optional<double> x_ratio, y_ratio;
  std::optional<std::string> text, key;
  std::optional<double> scroll_dy_ratio;
  std::optional<int> duration_ms;
};

/// Chooses the next action of the script in `user_message` from what can be read in
/// `picture`: the instruction after the last one that the model noted in its recent
/// actions. It waits twice for a target that is not there, and scrolls for one in at
/// most eight steps; after that, for a script without instructions or with one that
/// it does not understand, and before a captcha, it answers escalate_to_cua. Pure.
Proposal decide(std::string_view user_message, const Picture& picture);

/// The members that `propose_action` takes.
boost::json::object to_tool_input(const Proposal& proposal);

}  // namespace local_model
