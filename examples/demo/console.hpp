#pragma once

#include <cstdint>
#include <string>

#include "examples/demo/mission_run.hpp"
#include "examples/demo/options.hpp"

/// What the demo prints while the mission runs and when it has ended. All functions
/// are pure; text from a model or a page cannot break a line.
namespace demo {

/// What an action is done with: a place, a text, a key, a distance or a duration;
/// empty for a verdict.
std::string action_target(const vision::ActionResult& proposal);

/// A line about an answered step.
std::string step_line(std::size_t number, const vision::ActionResult& proposal);

/// A line of the printed table: a name and its value.
std::string fact_line(const char* name, const std::string& value);

/// How much the telemetry could not write.
struct Losses {
  std::uint64_t records = 0;
  std::uint64_t screenshots = 0;

  bool any() const noexcept { return records + screenshots > 0; }
};

/// The table that ends a run: the verdict, what the application says, the ledger, and
/// losses if there are any.
std::string summary_text(const MissionRun& run, const ModelChoice& model, const Losses& losses);

/// Whether the mission succeeded, as one sentence.
std::string headline(const MissionRun& run);

/// The verdict of the model or of the act loop, with its reason; "none" when the
/// mission was interrupted.
std::string verdict_text(const MissionRun& run);

/// Advice on a failure, as one sentence; empty when there is none.
std::string hint(const MissionRun& run);

}  // namespace demo
