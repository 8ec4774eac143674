#include "tests/world/scenario.hpp"

namespace vision::world {
namespace {

const std::string centre = R"(, "x_ratio": 0.5, "y_ratio": 0.25)";
const Answer click{"click", 0.9, centre}, elsewhere{"click", 0.6, R"(, "x_ratio": 0.1, "y_ratio": 0.25)"};
const Answer type{"type", 0.9, R"(, "text": "añ")"}, key{"key", 0.9, R"(, "key": "Enter")"};
const Answer scroll{"scroll"}, long_wait{"wait", 0.9, R"(, "duration_ms": 60000)"};
const Answer success{"declare_success"}, failure{"declare_failure"}, escalate{"escalate_to_cua"};
const Answer guess{"click", 0.59, centre}, guessed_success{"declare_success", 0.3};
const Answer no_tool{"no_tool"}, broken{"broken"}, unknown{"juggle"}, pointless{"click", 0.9, "", false};

std::vector<Scenario> make() {
  using enum Mode;
  return {
      {act_loop, "every_action", {click, type, scroll, key, long_wait, unknown, success}},
      {act_loop, "click_with_fixtures", {click, success}, true},
      {act_loop, "without_hook", {click, failure}, false, false},
      {act_loop, "repeats", {click, click, click}},
      {act_loop, "broken_repeats", {click, click, elsewhere, click, escalate}},
      {act_loop, "step_cap", {click, elsewhere, success}, false, true, 50, 2},
      {act_loop, "no_steps", {}, false, true, 50, 0},
      {act_loop, "spent_budget", {click, elsewhere}, false, true, 1},
      {act_loop, "read_only", {scroll}, false, true, 50, 8, true},
      {act_loop, "read_only_success", {success}, false, true, 50, 8, true},
      {act_loop, "abort", {key, click}, false, true, 50, 8, false, 2},
      {act_loop, "guess", {guess}},
      {act_loop, "guessed_success", {guessed_success}},
      {act_loop, "no_tool_call", {no_tool}},
      {act_loop, "broken_answer", {broken}},
      {act_loop, "unusable_action", {elsewhere, pointless}},
      {shadow, "proposal", {click}, true},
      {shadow, "slow_agent", {click}, false, true, 50, 8, false, 0, 40.0},
      {shadow, "verdict", {failure}, false, false},
      {shadow, "no_tool_call", {no_tool}},
      {shadow, "spent_budget", {}, false, true, 0},
      {observer, "proposal", {click}, true},
      {observer, "verdict", {failure}, false, false},
      {observer, "broken_answer", {broken}},
      {observer, "spent_budget", {}, false, true, 0},
      {wrapper, "no_failure", {}, false, true, 50, 8, false, 0, 0, 0},
      {wrapper, "click", {click}},
      {wrapper, "click_in_vain", {click}, false, false, 50, 8, false, 0, 0, 2},
      {wrapper, "guessed_success", {guessed_success}},
      {wrapper, "escalation", {escalate}},
      {wrapper, "escalation_without_agent", {escalate}, false, true, 50, 8, false, 0, 0, 1, false},
      {wrapper, "guess", {guess}},
      {wrapper, "unusable_action", {pointless}},
      {wrapper, "spent_budget", {}, false, true, 0},
      {act, "click", {click}},
      {act, "spent_budget", {}, false, true, 0},
      {ask, "click", {click}},
      {ask, "without_retry", {success}, false, false, 50, 8, false, 0, 0, 0, true, false},
      {ask, "no_tool_call", {no_tool}},
      {ask, "unreadable_context", {}, false, true, 50, 8, false, 0, 0, 0, true, true, true},
  };
}

}  // namespace

std::string_view name_of(Mode mode) {
  constexpr std::string_view names[] = {"act_loop", "shadow", "observer", "wrapper", "act", "ask"};
  return names[static_cast<std::size_t>(mode)];
}

const std::vector<Scenario>& scenarios() {
  static const auto made = make();
  return made;
}

}  // namespace vision::world
