#include <gmock/gmock.h>

#include <any>
#include <map>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/internal/response.hpp"
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
  test::World world;
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
  EXPECT_EQ(world.run(act_loop(page, mission)).action, "declare_success");
  EXPECT_THAT(page.actions, ElementsAre("click [6.4E2,2E2]", "type añ 20", "wheel [0E0,4E2]", "press Enter"));
  EXPECT_EQ(world.seconds(), 7 * 0.5 + 1 + 1 + 0.5 + 1 + 10);

  const std::string first = model->user_text(0);
  EXPECT_THAT(first, HasSubstr("# Task\nMULTI-STEP MISSION — you are driving this mission ONE action per response;"));
  EXPECT_THAT(first, HasSubstr("in `reason` verbatim. Never type status phrases into the page.\n--- MISSION BRIEF "
                               "---\nShare it.\n--- END BRIEF ---\nIf the"));
  EXPECT_TRUE(first.ends_with("captcha/human-verification), respond escalate_to_cua.")) << first;
  EXPECT_THAT(model->user_text(1), HasSubstr("last_action: step 1/8: click(0.50,0.25) — because\n"));
  EXPECT_THAT(model->user_text(6), HasSubstr("last_action: step 4/8: key — because | step 5/8: wait — because | "
                                             "step 6/8: juggle — because\n"));
}

TEST_F(Modes, ActLoopSaysWhyItEnded) {
  const auto plain = [](ActLoopOptions&) {};
  const auto read_only = [](ActLoopOptions& o) { o.read_only(true); };
  const auto at = [](const std::string& x) { return proposal("click", 1, R"(, "y_ratio": 0.3, "x_ratio": )" + x); };
  const std::string guess =
      test::tool_call(R"({"action": "click", "confidence": 0.42, "reason": ")" + std::string(200, 'r') + "\"}");
  const auto two_steps = [](ActLoopOptions& o) { o.max_steps(2); };
  const auto abort = [](ActLoopOptions& o) { o.should_abort([n = 0]() mutable { return ++n == 2; }); };
  const auto spent = [&](ActLoopOptions&) { client.metrics.call_count = 50; };
  const std::tuple<std::vector<std::string>, std::function<void(ActLoopOptions&)>, std::string> rails[] = {
      {{proposal("wait", 1), at("0.1")}, two_steps, "step cap (2) reached without a terminal action"},
      {{proposal("declare_success", 0.456)}, plain, "low-confidence success claim (0.46) — not trusted: because"},
      {{guess}, read_only, "low-confidence click proposal (0.42) — not acted on: " + std::string(160, 'r')},
      {{proposal("scroll", 1)}, read_only, "read-only hotspot — vision proposed scroll; deferring to CUA"},
      {{at("0.501"), at("0.499"), at("0.50")}, plain, "repeated identical click 3x with no progress"},
      {{at("0.0"), at("-0.0"), at("0")}, plain, "repeated identical click 3x with no progress"},
      {{proposal("wait", 1)}, abort, "aborted by caller before step 2"},
      {{proposal("click", 1)},
       plain,
       "execute_action(click) failed at step 1: invalid_argument: click action requires x_ratio + y_ratio"},
      {{}, spent, "vision budget exhausted: Vision call budget 50 exceeded — escalate to CUA"},
  };
  for (const auto& [answers, set, reason] : rails) {
    for (const auto& answer : answers) model->answer(answer);
    ActLoopOptions mission(context, "site");
    mission.vision(client);
    set(mission);
    EXPECT_EQ(world.run(act_loop(page, mission)).reason, reason);
    EXPECT_EQ(model->steps.size(), 0u) << reason;
  }
}

TEST_F(Modes, ExecuteAction) {
  const std::tuple<const char*, const char*, const char*, double> rows[] = {
      {"click", R"(, "x_ratio": 0, "y_ratio": 0.25)", "click [0E0,2E2]", 0},
      {"click", R"(, "x_ratio": 0.5)", "click action requires x_ratio + y_ratio", 0},
      {"type", R"(, "text": "ü")", "type ü 20", 0},
      {"type", "", "type action requires text", 0},
      {"scroll", R"(, "scroll_dy_ratio": 0)", "wheel [0E0,4E2]", 0},
      {"scroll", R"(, "scroll_dy_ratio": -1)", "wheel [0E0,-8E2]", 0},
      {"key", R"(, "key": "Control+a")", "press Control+a", 0},
      {"key", "", "key action requires key", 0},
      {"wait", "", "", 0.5},
      {"wait", R"(, "duration_ms": 20000)", "", 20},
      {"wait", R"(, "duration_ms": -5)", "", 0},
  };
  for (const auto& [verb, members, expected, seconds] : rows) {
    const auto result = _parse_response(boost::json::parse(proposal(verb, 1, members)), "m", 0, {});
    const double before = world.seconds();
    page.actions = {""};
    try {
      world.run(execute_action(page, result, ImgMeta(1280, 800, 2.0, 0.0)));
    } catch (const std::invalid_argument& e) {
      page.actions.push_back(e.what());
    }
    EXPECT_EQ(page.actions.back(), expected) << verb;
    EXPECT_EQ(world.seconds() - before, seconds) << verb;
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
    return world.run(shadow_observe_then_cua(page, std::move(agent_fn), options()));
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
  observe_in_background(world.io.get_executor(), page_to_watch, options(), keep(record));
  observe_in_background(world.io.get_executor(), page_to_watch, ObserverOptions(context, "no client"));
  world.run(pause(0.1));
  owned.reset();
  EXPECT_TRUE(page_to_watch.expired()) << "kept alive after its screenshot";
  observe_in_background(world.io.get_executor(), page_to_watch, options(), keep(of_a_gone_page));
  world.run(pause(1));
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
  EXPECT_THROW(world.run(shadow_observe_then_cua(page, count, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_THROW(world.run(with_vision_fallback(page, count, FallbackOptions(context))), std::runtime_error);
  auto agent = [owned = std::make_unique<int>()](BrowserPage&, const FlowContext&, const std::string&) {
    return pause(0);
  };
  EXPECT_THROW(world.run(with_vision_fallback(page, count, FallbackOptions(context), std::move(agent))),
               std::runtime_error);
  EXPECT_THROW(world.run(observe_only(page, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_EQ(runs, 0);
}

}  // namespace
}  // namespace vision
