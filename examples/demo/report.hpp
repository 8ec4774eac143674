#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <string>
#include <vector>

#include "vision/client/metrics.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/bytes.hpp"

namespace demo {

/// One answered step of the mission.
struct ReportStep {
  vision::Bytes screenshot;       ///< PNG, what the model saw
  vision::ActionResult proposal;  ///< what it answered
};

/// What the page says besides the steps.
struct ReportSummary {
  std::string title;
  std::string model;  ///< who answered
  vision::ActionResult verdict;
  std::string expected;  ///< the right answer
  bool right = false;
  vision::VisionMetrics metrics;
};

/// The mission as one self-contained HTML page (UTF-8, no scripts, no external
/// resources): every step's screenshot with a marker where it clicked, and its
/// record. Pure; any text is safe in it.
std::string render_report(const std::vector<ReportStep>& steps, const ReportSummary& summary);

}  // namespace demo
