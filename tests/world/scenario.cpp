#include "tests/world/scenario.hpp"

namespace vision::world {
namespace {

const std::string centre = R"(, "x_ratio": 0.5, "y_ratio": 0.25)";
const Answer click{"click", 0.9, centre}, elsewhere{"click", 0.6, R"(, "x_ratio": 0.1, "y_ratio": 0.25)"};
const Answer type{"type", 0.9, R"(, "text": "añ")"}, key{"key", 0.9, R"(, "key": "Enter")"};
const Answer scroll{"scroll"}, short_wait{"wait", 0.9, R"(, "duration_ms": 300)"},
    long_wait{"wait", 0.9, R"(, "duration_ms": 60000)"};
const Answer success{"declare_success"}, failure{"declare_failure"}, escalate{"escalate_to_cua"};
const Answer guess{"click", 0.59, centre}, guessed_success{"declare_success", 0.3};
const Answer no_tool{"no_tool"}, broken{"broken"}, unknown{"juggle"}, pointless{"click", 0.9, "", false};

}  // namespace

const std::vector<Scenario>& scenarios() {
  using namespace modes;
  static const std::vector<Scenario> all = {
      {act_loop, "act_loop/every_action", {click, type, scroll, key, short_wait, long_wait, unknown, success}},
      {act_loop, "act_loop/click_with_fixtures", {click, success}, {.fixtures = true}},
      {act_loop, "act_loop/heavy_model", {click, click}, {.high_stakes = true}},
      {act_loop, "act_loop/without_hook", {click, failure}, {.hook = false}},
      {act_loop, "act_loop/repeats", {click, click, click}},
      {act_loop, "act_loop/broken_repeats", {click, click, elsewhere, click, escalate}},
      {act_loop, "act_loop/step_cap", {click, elsewhere, success}, {.max_steps = 2}},
      {act_loop, "act_loop/no_steps", {}, {.max_steps = 0}},
      {act_loop, "act_loop/spent_budget", {click, elsewhere}, {.budget = 1}},
      {act_loop, "act_loop/read_only", {scroll}, {.read_only = true}},
      {act_loop, "act_loop/read_only_success", {success}, {.read_only = true}},
      {act_loop, "act_loop/abort", {key, click}, {.abort_at = 2}},
      {act_loop, "act_loop/guess", {guess}},
      {act_loop, "act_loop/guessed_success", {guessed_success}},
      {act_loop, "act_loop/no_tool_call", {no_tool}},
      {act_loop, "act_loop/broken_answer", {broken}},
      {act_loop, "act_loop/unusable_action", {elsewhere, pointless}},
      {shadow, "shadow/proposal", {click}, {.fixtures = true}},
      {shadow, "shadow/slow_agent", {click}, {.agent_seconds = 40}},
      {shadow, "shadow/verdict", {failure}, {.hook = false}},
      {shadow, "shadow/no_tool_call", {no_tool}},
      {shadow, "shadow/spent_budget", {}, {.budget = 0}},
      {observer, "observer/proposal", {click}, {.fixtures = true}},
      {observer, "observer/verdict", {failure}, {.hook = false, .high_stakes = true}},
      {observer, "observer/broken_answer", {broken}},
      {observer, "observer/spent_budget", {}, {.budget = 0}},
      {wrapper, "wrapper/no_failure", {}, {.failing_runs = 0}},
      {wrapper, "wrapper/click", {click}},
      {wrapper, "wrapper/wait", {short_wait}, {.high_stakes = true}},
      {wrapper, "wrapper/click_in_vain", {click}, {.hook = false, .failing_runs = 2}},
      {wrapper, "wrapper/guessed_success", {guessed_success}},
      {wrapper, "wrapper/escalation", {escalate}},
      {wrapper, "wrapper/escalation_without_agent", {escalate}, {.has_agent = false}},
      {wrapper, "wrapper/guess", {guess}},
      {wrapper, "wrapper/unusable_action", {pointless}},
      {wrapper, "wrapper/spent_budget", {}, {.budget = 0}},
      {act, "act/click", {click}},
      {act, "act/spent_budget", {}, {.budget = 0}},
      {ask, "ask/click", {click}},
      {ask, "ask/without_retry", {success}, {.hook = false, .transport_retry = false}},
      {ask, "ask/no_tool_call", {no_tool}, {.high_stakes = true}},
      {ask, "ask/unreadable_context", {}, {.unreadable_context = true}},
  };
  return all;
}

}  // namespace vision::world
