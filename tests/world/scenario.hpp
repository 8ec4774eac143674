#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vision::world {

enum class Mode { act_loop, shadow, observer, wrapper, act, ask };

std::string_view name_of(Mode mode);

/// What the model answers to one call. Besides the verbs: "no_tool" (an answer
/// without a tool call) and "broken" (no answer at all).
struct Answer {
  std::string verb;
  double confidence = 0.9;
  std::string members = {};   ///< more members of the tool's input, as JSON text
  bool has_all_needs = true;  ///< false for a page action that cannot be carried out

  bool operator==(const Answer&) const = default;
};

/// One use of one mode by a host.
struct Scenario {
  Mode mode;
  std::string name;
  std::vector<Answer> answers = {};
  bool fixtures = false;  ///< screenshots are stored
  bool hook = true;       ///< the client has an on_action hook
  std::int64_t budget = 50;
  std::int64_t max_steps = 8;   ///< act loop
  bool read_only = false;       ///< act loop
  int abort_at = 0;             ///< act loop: the probe that says yes, counted from 1
  double agent_seconds = 0.25;  ///< shadow mode
  int failing_runs = 1;         ///< wrapper: of the scripted step
  bool has_agent = true;        ///< wrapper
  bool transport_retry = true;  ///< ask
  bool unreadable_context = false;

  std::string full_name() const { return std::string(name_of(mode)) + "/" + name; }
};

/// All scenarios, each reached by every mode's enumeration.
const std::vector<Scenario>& scenarios();

}  // namespace vision::world
