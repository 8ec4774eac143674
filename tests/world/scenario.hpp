#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vision::world {

enum class Mode { act_loop, shadow, observer, wrapper, act, ask };

/// What the model answers to one call. Besides the verbs: "no_tool" (an answer
/// without a tool call) and "broken" (no answer at all).
struct Answer {
  std::string verb;
  double confidence = 0.9;
  std::string members = {};   ///< more members of the tool's input, as JSON text
  bool has_all_needs = true;  ///< false for a page action that cannot be carried out

  bool operator==(const Answer&) const = default;
};

/// What a scenario may have differently.
struct Details {
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
};

/// One use of one mode by a host.
struct Scenario : Details {
  Scenario(Mode m, std::string_view n, std::vector<Answer> a, Details details = {});

  Mode mode;
  std::string name;  ///< "act_loop/repeats"
  std::vector<Answer> answers;
};

/// Together they reach every branch of each mode.
const std::vector<Scenario>& scenarios();

}  // namespace vision::world
