#include <gmock/gmock.h>

#include <any>
#include <map>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace {

using test::pause;
using test::proposal;
using testing::ElementsAre;
using testing::HasSubstr;
namespace asio = boost::asio;

class Modes : public testing::Test {
 protected:
  ObserverOptions options() {
    ObserverOptions made(context, "site");
    made.vision(client).run_id("r");
    return made;
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::ScopedEnv log_path{"KX_VISION_SHADOW_LOG", std::nullopt};
  test::LogCapture log;
  test::VirtualLoop loop;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClient client{model};
  FlowContext context = {{"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}};
};

TEST_F(Modes, ActLoopTellsTheModelOfItsMission) {
  model->answer(proposal("click", 0.85, R"(, "x_ratio": 0.5, "y_ratio": 0.25)"))
      .answer(proposal("type", 0.6, R"(, "text": "añ")"))
      .answer(proposal("scroll", 1))
      .answer(proposal("key", 1, R"(, "key": "Enter")"))
      .answer(proposal("wait", 1, R"(, "duration_ms": 60000)"))
      .answer(proposal("juggle", 1))
      .answer(proposal("declare_success", 0.9));
  ActLoopOptions mission(context, "site");
  mission.vision(client).mission_prompt("Share it.");
  std::vector<double> steps_begin;
  page.before = [&](const std::string& operation) {
    if (operation == "screenshot") steps_begin.push_back(loop.seconds());
    return pause(0);
  };
  EXPECT_EQ(loop.run(act_loop(page, mission)).action, "declare_success");
  // The model takes half a second each time; then come the pauses: 1, 1, 0.5, 1, 10 and none.
  EXPECT_THAT(steps_begin, ElementsAre(0, 1.5, 3, 4, 5.5, 16, 16.5));

  const std::string first = model->user_text(0);
  EXPECT_EQ(first.substr(first.find("# Task\n")), "# Task\n" + test::read_file(GOLDEN_FOLDER "mission_task.txt"));
  EXPECT_THAT(model->user_text(1), HasSubstr("last_action: step 1/8: click(0.50,0.25) — because\n"));
  EXPECT_THAT(model->user_text(6), HasSubstr("last_action: step 4/8: key — because | step 5/8: wait — because | "
                                             "step 6/8: juggle — because\n"));
}

struct ActLoopCase {
  const char* way;
  std::vector<std::string> answers;  // the model's; a call without one fails
  std::string ending;                // "OUTCOME after STEPS: REASON"
  std::function<void(ActLoopOptions&)> set = [](ActLoopOptions&) {};
};

TEST_F(Modes, ActLoopEndings) {
  const auto at = [](const std::string& x) { return proposal("click", 1, R"(, "y_ratio": 0.3, "x_ratio": )" + x); };
  const std::string success = proposal("declare_success", 0.6), unsure = proposal("declare_success", 0.456),
                    wait = proposal("wait", 1), scroll = proposal("scroll", 0.6), no_place = proposal("click", 1),
                    guess = test::tool_call(R"({"action": "click", "confidence": 0.42, "reason": ")" +
                                            std::string(200, 'r') + "\"}"),
                    first = "escalate after 1: ",
                    of_guess = first + "low-confidence click proposal (0.42) — not acted on: " + std::string(160, 'r'),
                    of_repeat = "escalate after 3: repeated identical click 3x with no progress",
                    of_action = first + "execute_action(click) failed at step 1: ";
  const auto read_only = [](ActLoopOptions& options) { options.read_only(true); };
  const auto steps = [](int cap) { return [cap](ActLoopOptions& options) { options.max_steps(cap); }; };
  const auto probe = [](std::function<bool()> asked) {
    return [=](ActLoopOptions& options) { options.should_abort(asked); };
  };
  const auto at_page = [this](const char* where, asio::awaitable<void> (*what)()) {
    return [=, this](ActLoopOptions&) {
      page.before = [=](std::string operation) { return operation.starts_with(where) ? what() : pause(0); };
    };
  };
  const auto fails = []() -> asio::awaitable<void> { throw test::HostError("the page is broken"); };
  const auto hangs = [] { return pause(1e9); };
  const auto spent = [this](ActLoopOptions&) { client.metrics.call_count = 50; };
  const auto second_time = [n = 0]() mutable { return ++n == 2; };
  const ActLoopCase cases[] = {
      {"success", {success}, "success after 1: because"},
      {"success in read-only mode", {success}, "success after 1: because", read_only},
      {"failure", {proposal("declare_failure", 0.1)}, "failure after 1: because"},
      {"escalation", {proposal("escalate_to_cua", 0.1)}, "escalate after 1: because"},
      {"failed call", {}, "failure after 1: unexpected error: logic_error: no scripted answer left"},
      {"success guess", {unsure}, first + "low-confidence success claim (0.46) — not trusted: because"},
      {"guess", {guess}, of_guess},
      {"guess in read-only mode", {guess}, of_guess, read_only},
      {"read-only", {scroll}, first + "read-only hotspot — vision proposed scroll; deferring to CUA", read_only},
      {"repeat", {at("0.501"), at("0.499"), at("0.50")}, of_repeat},
      {"repeat at zero of either sign", {at("0.0"), at("-0.0"), at("0")}, of_repeat},
      {"step cap", {wait, at("0.1")}, "escalate after 2: step cap (2) reached without a terminal action", steps(2)},
      {"step cap 0", {}, "escalate after 0: step cap (0) reached without a terminal action", steps(0)},
      {"abort", {wait}, "escalate after 2: aborted by caller before step 2", probe(second_time)},
      {"broken abort probe", {success}, "success after 1: because", probe([]() -> bool { throw 42; })},
      {"refused action", {no_place}, of_action + "invalid_argument: click action requires x_ratio + y_ratio"},
      {"failed action", {at("0.1")}, of_action + "HostError: the page is broken", at_page("click", fails)},
      {"failed step", {}, first + "act step 1 error: HostError: the page is broken", at_page("screenshot", fails)},
      {"time-out", {}, first + "act step 1 timed out (screenshot hung?)", at_page("screenshot", hangs)},
      {"budget", {}, first + "vision budget exhausted: Vision call budget 50 exceeded — escalate to CUA", spent},
  };
  for (const auto& [way, answers, ending, set] : cases) {
    SCOPED_TRACE(way);
    client.metrics.reset();
    page.before = nullptr;
    for (const auto& answer : answers) model->answer(answer);
    ActLoopOptions mission(context, "site");
    mission.vision(client);
    set(mission);
    const auto result = loop.run(act_loop(page, mission));
    const auto last = boost::json::parse(test::read_lines("logs/vision_shadow.jsonl").back());
    const std::string outcome = text::plain_text(last.at("outcome"));
    EXPECT_EQ(outcome + " after " + text::plain_text(last.at("steps_used")) + ": " + result.reason, ending);
    EXPECT_THAT(result.action, HasSubstr(outcome));
    EXPECT_EQ(model->steps.size(), 0u);
  }
}

struct FallbackCase {
  const char* way;
  std::string answer;  // the model's; without one the call fails
  std::string events;  // everything done, in order; the first "step" fails unless it is all
  std::string ending;  // "FROM: VALUE", or the error's text
  bool has_agent = true;
  bool last_fails = false;  // the last event
  std::int64_t calls_before = 0;
};

TEST_F(Modes, FallbackWays) {
  const std::string click = proposal("click", 0.6, R"(, "x_ratio": 0.5, "y_ratio": 0.25)");
  const std::string told = "agent: because | playwright failed: HostError: step";
  const FallbackCase cases[] = {
      {"the step succeeds", "", "step ", "step: done"},
      {"an action rescues the step", click, "step screenshot screenshot click step ", "rescued: done"},
      {"success, however unsure", proposal("declare_success", 0.3), "step screenshot ", "verdict: because"},
      {"handed over by an escalation", proposal("escalate_to_cua", 1), "step screenshot agent ", told},
      {"handed over by a failure", proposal("declare_failure", 1), "step screenshot agent ", told},
      {"handed over by a guess", proposal("click", 0.59), "step screenshot agent ", told},
      {"handed over by a failed call", "", "step screenshot agent ",
       "agent: unexpected error: logic_error: no scripted answer left | playwright failed: HostError: step"},
      {"no agent: the first error", proposal("escalate_to_cua", 1), "step screenshot ", "HostError: step", false},
      {"the agent fails", proposal("escalate_to_cua", 1), "step screenshot agent ", "HostError: agent", true, true},
      {"the first screenshot fails", "", "step screenshot ", "HostError: screenshot", true, true},
      {"the budget is spent", "", "step screenshot ",
       "BudgetExceeded: Vision call budget 50 exceeded — escalate to CUA", true, false, 50},
      {"the second screenshot fails", click, "step screenshot screenshot ", "HostError: screenshot", true, true},
      {"the action is refused", proposal("click", 0.6), "step screenshot screenshot ",
       "invalid_argument: click action requires x_ratio + y_ratio"},
      {"the action fails", click, "step screenshot screenshot click ", "HostError: click", true, true},
      {"the second run fails", click, "step screenshot screenshot click step ", "HostError: step", true, true},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.way);
    std::string events;
    const auto pass = [&](const std::string& event) {
      events += event + " ";
      const bool is_first_step = events == "step " && row.events != events;
      if (is_first_step || (row.last_fails && events == row.events)) throw test::HostError(event);
      return pause(0);
    };
    page.before = [&](const std::string& operation) {
      return operation.starts_with("evaluate") ? pause(0) : pass(operation.substr(0, operation.find(' ')));
    };
    auto step = [&] { return test::with_value(pass("step"), std::string("done")); };
    std::function<asio::awaitable<std::string>(BrowserPage&, const FlowContext&, const std::string&)> agent;
    if (row.has_agent) {
      agent = [&](BrowserPage&, const FlowContext& copy, const std::string& reason) {
        return test::with_value(pass("agent"), reason + " | " + text::plain_text(copy.at("context_hint")));
      };
    }
    client.metrics.call_count = row.calls_before;
    model->steps.clear();
    if (!row.answer.empty()) model->answer(row.answer);
    std::string ending;
    try {
      FallbackOptions fallback(context);
      const auto result = loop.run(with_vision_fallback(page, step, fallback.vision(client), agent));
      switch (result.way()) {
        case FallbackWay::step: ending = "step: " + result.step(); break;
        case FallbackWay::rescued: ending = "rescued: " + result.step(); break;
        case FallbackWay::verdict: ending = "verdict: " + result.verdict().reason; break;
        case FallbackWay::agent: ending = "agent: " + result.agent(); break;
      }
    } catch (...) {
      ending = text::exception_text(std::current_exception());
    }
    EXPECT_EQ(ending, row.ending);
    EXPECT_EQ(events, row.events);
  }
}

TEST_F(Modes, ExecuteAction) {
  const std::tuple<const char*, const char*, const char*, double> rows[] = {
      {"click", R"(, "x_ratio": 0, "y_ratio": 0.25)", "click [0E0,2E2]", 0},
      {"click", R"(, "x_ratio": 0.5)", "click action requires x_ratio + y_ratio", 0},
      {"type", R"(, "text": "ü")", R"(type ["ü",20])", 0},
      {"type", "", "type action requires text", 0},
      {"scroll", R"(, "scroll_dy_ratio": 0)", "scroll [0E0,4E2]", 0},
      {"scroll", R"(, "scroll_dy_ratio": -1)", "scroll [0E0,-8E2]", 0},
      {"key", R"(, "key": "Control+a")", R"(key ["Control+a"])", 0},
      {"key", "", "key action requires key", 0},
      {"wait", "", "", 0.5},
      {"wait", R"(, "duration_ms": 20000)", "", 20},
      {"wait", R"(, "duration_ms": -5)", "", 0},
  };
  for (const auto& [verb, members, expected, seconds] : rows) {
    const auto result = _parse_response(boost::json::parse(proposal(verb, 1, members)), "m", 0, {});
    const double before = loop.seconds();
    page.actions = {""};
    try {
      loop.run(execute_action(page, result, ImgMeta(1280, 800, 2.0, 0.0)));
    } catch (const std::invalid_argument& e) {
      page.actions.push_back(e.what());
    }
    EXPECT_EQ(page.actions.back(), expected) << verb;
    EXPECT_EQ(loop.seconds() - before, seconds) << verb;
  }
}

template <class T>
auto agent(T value) {
  return [value = std::make_unique<T>(std::move(value))]() -> asio::awaitable<T> {
    co_await pause(1.2349);
    co_return std::move(*value);
  };
}

TEST_F(Modes, ShadowTakesAnyResult) {
  const auto shadow = [&](auto agent_fn) {
    model->answer(proposal("click", 0.7));
    return loop.run(shadow_observe_then_cua(page, std::move(agent_fn), options()));
  };
  EXPECT_EQ(*shadow(agent(std::make_unique<int>(7))), 7);
  EXPECT_EQ(shadow(agent(std::string("plain"))), "plain");
  const boost::json::object panel = {{"text", std::string(300, 'p')}, {"other", 1}};
  EXPECT_EQ(shadow(agent(panel)), panel);
  shadow(agent(boost::json::value({{"text", false}})));
  shadow(agent(std::map<std::string, int>{{"text", 5}}));
  shadow(agent(std::map<std::string, const char*>{{"text", nullptr}}));
  shadow(agent(std::map<std::string, std::any>{{"text", 5}}));
  shadow([]() -> asio::awaitable<void> { return pause(1.2349); });
  std::vector<std::string> heads;
  for (const auto& line : test::read_lines("logs/vision_shadow.jsonl")) {
    const auto cua = boost::json::parse(line).at("cua");
    EXPECT_EQ(cua.at("latency_ms"), 1234);
    heads.push_back(std::string(cua.at("text_head").as_string()));
  }
  EXPECT_THAT(heads, ElementsAre("", "", std::string(200, 'p'), "", "5", "", "", ""));
}

TEST_F(Modes, ObserverInTheBackground) {
  const test::ScopedEnv no_key("ANTHROPIC_API_KEY", std::nullopt);
  model->answer(proposal("click", 0.7)).answer(proposal("click", 0.7));
  auto owned = std::make_shared<test::ScriptedPage>();
  const std::weak_ptr<BrowserPage> page_to_watch = owned;
  boost::json::object record, of_a_gone_page;
  const auto keep = [](boost::json::object& slot) {
    return [&slot](std::exception_ptr, boost::json::object made) { slot = std::move(made); };
  };
  observe_in_background(loop.io.get_executor(), page_to_watch, options(), keep(record));
  observe_in_background(loop.io.get_executor(), page_to_watch, ObserverOptions(context, "no client"));
  loop.run(pause(0.1));
  owned.reset();
  EXPECT_TRUE(page_to_watch.expired()) << "kept alive after its screenshot";
  observe_in_background(loop.io.get_executor(), page_to_watch, options(), keep(of_a_gone_page));
  loop.run(pause(1));
  EXPECT_EQ(record["vision"].at("action"), "click");
  EXPECT_THAT(text::to_json(of_a_gone_page["vision"]), HasSubstr("the page was destroyed before its screenshot"));
  EXPECT_THAT(log.lines().at(0), HasSubstr("warning: vision: observation failed: VisionClient: no API key."));
  asio::io_context destroyed_meanwhile;
  observe_in_background(destroyed_meanwhile.get_executor(), std::make_shared<test::ScriptedPage>(), options());
}

TEST_F(Modes, WithoutAClientTheHostsCallablesAreNotRun) {
  const test::ScopedEnv no_key("ANTHROPIC_API_KEY", std::nullopt);
  int runs = 0;
  const auto count = [&] {
    ++runs;
    return pause(0);
  };
  EXPECT_THROW(loop.run(shadow_observe_then_cua(page, count, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_THROW(loop.run(with_vision_fallback(page, count, FallbackOptions(context))), std::runtime_error);
  auto agent = [owned = std::make_unique<int>()](BrowserPage&, const FlowContext&, const std::string&) {
    return pause(0);
  };
  EXPECT_THROW(loop.run(with_vision_fallback(page, count, FallbackOptions(context), std::move(agent))),
               std::runtime_error);
  EXPECT_THROW(loop.run(observe_only(page, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_EQ(runs, 0);
}

}  // namespace
}  // namespace vision
