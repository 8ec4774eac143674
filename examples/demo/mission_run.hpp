#pragma once

#include <boost/asio/awaitable.hpp>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "examples/demo/options.hpp"
#include "vision/client/metrics.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/bytes.hpp"

namespace demo {

/// One question to the model.
struct Step {
  vision::Bytes screenshot;                      ///< PNG, what the model saw
  std::optional<vision::ActionResult> proposal;  ///< its answer, or how the call failed; absent when none came
};

/// One run of the mission, filled in while it goes on, so that an interruption
/// leaves what there is.
class MissionRun {
 public:
  explicit MissionRun(std::string run_id) : id(std::move(run_id)) {}

  std::string id;
  std::string brief;        ///< the mission as the model reads it
  std::time_t started = 0;  ///< wall clock
  double seconds = 0;       ///< how long it took, the start of the browser included
  std::vector<Step> steps;
  vision::VisionMetrics metrics;
  std::string expected;                         ///< the link that the application issued; empty when there is none
  bool invited_rightly = false;                 ///< the right person, and nobody else
  std::optional<vision::ActionResult> verdict;  ///< absent when the mission was interrupted

  bool right() const {
    return verdict && verdict->action == vision::ActionVerb::declare_success && !expected.empty() &&
           verdict->reason == expected && invited_rightly;
  }
};

/// A new id of a run, unlike any other: records and screenshots of all runs may
/// share a folder.
std::string new_run_id();

/// Told of every step when the model has answered, before it is carried out.
using OnStep = std::function<void(std::size_t number, const vision::ActionResult& proposal)>;

/// Starts the web application, the local model if it is to decide, and a browser;
/// runs the mission; ends them all. `run`, which must outlive the operation, is
/// complete when the operation ends, in whatever way. Throws when one of them cannot
/// be started. Cancellation ends it with operation_aborted and kills the browser.
boost::asio::awaitable<void> run_mission(DemoOptions options, ModelChoice model, MissionRun& run, OnStep on_step);

/// The hot spot that records and fixtures are filed under.
inline constexpr const char* hotspot_id = "demo-share-board";

}  // namespace demo
