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
      {act_loop, "click_with_fixtures", {click, success}, {.fixtures = true}},
      {act_loop, "without_hook", {click, failure}, {.hook = false}},
      {act_loop, "repeats", {click, click, click}},
      {act_loop, "broken_repeats", {click, click, elsewhere, click, escalate}},
      {act_loop, "step_cap", {click, elsewhere, success}, {.max_steps = 2}},
      {act_loop, "no_steps", {}, {.max_steps = 0}},
      {act_loop, "spent_budget", {click, elsewhere}, {.budget = 1}},
      {act_loop, "read_only", {scroll}, {.read_only = true}},
      {act_loop, "read_only_success", {success}, {.read_only = true}},
      {act_loop, "abort", {key, click}, {.abort_at = 2}},
      {act_loop, "guess", {guess}},
      {act_loop, "guessed_success", {guessed_success}},
      {act_loop, "no_tool_call", {no_tool}},
      {act_loop, "broken_answer", {broken}},
      {act_loop, "unusable_action", {elsewhere, pointless}},
      {shadow, "proposal", {click}, {.fixtures = true}},
      {shadow, "slow_agent", {click}, {.agent_seconds = 40}},
      {shadow, "verdict", {failure}, {.hook = false}},
      {shadow, "no_tool_call", {no_tool}},
      {shadow, "spent_budget", {}, {.budget = 0}},
      {observer, "proposal", {click}, {.fixtures = true}},
      {observer, "verdict", {failure}, {.hook = false}},
      {observer, "broken_answer", {broken}},
      {observer, "spent_budget", {}, {.budget = 0}},
      {wrapper, "no_failure", {}, {.failing_runs = 0}},
      {wrapper, "click", {click}},
      {wrapper, "click_in_vain", {click}, {.hook = false, .failing_runs = 2}},
      {wrapper, "guessed_success", {guessed_success}},
      {wrapper, "escalation", {escalate}},
      {wrapper, "escalation_without_agent", {escalate}, {.has_agent = false}},
      {wrapper, "guess", {guess}},
      {wrapper, "unusable_action", {pointless}},
      {wrapper, "spent_budget", {}, {.budget = 0}},
      {act, "click", {click}},
      {act, "spent_budget", {}, {.budget = 0}},
      {ask, "click", {click}},
      {ask, "without_retry", {success}, {.hook = false, .transport_retry = false}},
      {ask, "no_tool_call", {no_tool}},
      {ask, "unreadable_context", {}, {.unreadable_context = true}},
  };
}

}  // namespace

Scenario::Scenario(Mode m, std::string_view n, std::vector<Answer> a, Details details)
    : Details(details), mode(m), answers(std::move(a)) {
  constexpr std::string_view modes[] = {"act_loop/", "shadow/", "observer/", "wrapper/", "act/", "ask/"};
  name = std::string(modes[static_cast<std::size_t>(mode)]) + std::string(n);
}

const std::vector<Scenario>& scenarios() {
  static const auto made = make();
  return made;
}

}  // namespace vision::world
