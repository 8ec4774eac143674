#pragma once

#include <boost/asio/awaitable.hpp>
#include <functional>
#include <string>
#include <vector>

#include "examples/demo/options.hpp"
#include "examples/demo/report.hpp"
#include "vision/client/metrics.hpp"
#include "vision/records/action_result.hpp"

namespace demo {

/// How the mission ended and what is left of it.
class MissionEnd {
 public:
  explicit MissionEnd(vision::ActionResult result) : verdict(std::move(result)) {}

  vision::ActionResult verdict;
  std::vector<ReportStep> steps;
  vision::VisionMetrics metrics;
  std::string expected;          ///< the link that the application gave out, empty when none
  bool invited_rightly = false;  ///< the right person, and nobody else

  bool right() const {
    return verdict.action == vision::ActionVerb::declare_success && !expected.empty() && verdict.reason == expected &&
           invited_rightly;
  }
};

/// Told of every step when the model has answered, before it is carried out.
using OnStep = std::function<void(std::size_t number, const vision::ActionResult& proposal)>;

/// Starts the web application, the local model if it is to decide, and a browser;
/// runs the mission; ends them all. Throws when one of them cannot be started.
/// Cancellation ends it with operation_aborted, the browser included.
boost::asio::awaitable<MissionEnd> run_mission(DemoOptions options, ModelChoice model, std::string run_id,
                                               OnStep on_step);

/// The hot spot that records and fixtures are filed under.
inline constexpr const char* hotspot_id = "demo-share-board";

}  // namespace demo
