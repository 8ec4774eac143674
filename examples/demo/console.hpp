#pragma once

#include <string>

#include "examples/demo/mission_run.hpp"
#include "examples/demo/options.hpp"

namespace demo {

/// Where or with what an action is done: a place, a text, a key, a distance or a
/// duration; empty for a verdict.
std::string action_target(const vision::ActionResult& proposal);

/// What people read while the mission runs and when it has ended. Pure; any text
/// stays on its line.
std::string step_line(std::size_t number, const vision::ActionResult& proposal);

/// The verdict, whether it is right, the ledger.
std::string summary_text(const MissionEnd& end, const ModelChoice& model);

/// Why the mission did not succeed, and what may be done about it; empty when it
/// did.
std::string failure_sentence(const MissionEnd& end);

}  // namespace demo
