#pragma once

#include <string>

#include "examples/demo/mission_run.hpp"
#include "examples/demo/options.hpp"

namespace demo {

/// The mission as one self-contained HTML page (UTF-8, no scripts, no external
/// resources): how it ended, a film strip, and every step's screenshot with a
/// ring where the model clicked, and its record. Pure; any text is safe in it.
std::string render_report(const MissionRun& run, const ModelChoice& model);

}  // namespace demo
