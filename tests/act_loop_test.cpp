#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/act_rails.hpp"

namespace vision {
namespace {

using test::proposal;
using testing::ElementsAre;
using testing::HasSubstr;
namespace asio = boost::asio;

const ImgMeta meta(1280, 800, 2.0, 0.0);
const std::string centre = R"(, "x_ratio": 0.5, "y_ratio": 0.25)";

class ActLoop : public testing::Test {
 protected:
  ActionResult run(ActLoopOptions options) { return world.run(act_loop(page, options.vision(client))); }
  ActionResult run() { return run(ActLoopOptions(context, "share-dialog")); }

  std::vector<boost::json::object> records() const {
    std::vector<boost::json::object> parsed;
    for (const auto& line : test::read_lines("logs/vision_shadow.jsonl"))
      parsed.push_back(boost::json::parse(line).as_object());
    return parsed;
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::ScopedEnv log_path{"KX_VISION_SHADOW_LOG", std::nullopt};
  test::ScopedEnv fixtures{"KX_VISION_FIXTURE_AUTO", "1"};
  test::LogCapture log;
  test::World world;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClient client{model};
  FlowContext context = {{"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}};
};

TEST_F(ActLoop, DrivesThePageToAVerdictAndLogsEveryStep) {
  model->answer(proposal("click", 0.85, centre))
      .answer(proposal("type", 0.6, R"(, "text": "añ")"))
      .answer(proposal("scroll", 1))
      .answer(proposal("key", 1, R"(, "key": "Enter")"))
      .answer(proposal("wait", 1, R"(, "duration_ms": 60000)"))
      .answer(proposal("juggle", 1))
      .answer(proposal("declare_success", 0.9));
  const FlowContext before = context;
  const auto result = run(ActLoopOptions(context, "share-dialog").mission_prompt("Share it.").run_id("run-42"));

  EXPECT_EQ(result.action, "declare_success");
  EXPECT_EQ(result.model_used, "light-model");
  EXPECT_EQ(context, before);
  EXPECT_THAT(page.actions, ElementsAre("click [6.4E2,2E2]", "type añ 20", "wheel [0E0,4E2]", "press Enter"));
  EXPECT_EQ(world.seconds(), 7 * 0.5 + 1 + 1 + 0.5 + 1 + 10);
  EXPECT_THAT(model->user_text(0), HasSubstr("last_action: the caller's\n"));
  EXPECT_THAT(model->user_text(0), HasSubstr("--- MISSION BRIEF ---\nShare it.\n--- END BRIEF ---\n"));
  EXPECT_THAT(model->user_text(6), HasSubstr("last_action: step 4/8: key — because | step 5/8: wait — because | "
                                             "step 6/8: juggle — because\n"));
  EXPECT_THAT(model->user_text(1), HasSubstr("last_action: step 1/8: click(0.50,0.25) — because\n"));

  const auto lines = test::read_lines("logs/vision_shadow.jsonl");
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(
      lines[0],
      R"({"ts": "2025-11-16T19:05:00Z", "run_id": "run-42", "hotspot_id": "share-dialog", "phase": 2, "agent": "acme", )"
      R"("source": "act", "step": 1, "max_steps": 8, "vision": {"action": "click", "reason": "because", )"
      R"("confidence": 0.85, "next_expected_state": "next", "x_ratio": 0.5, "y_ratio": 0.25, "model": "light-model", )"
      R"("latency_ms": 500.0, "input_tokens": 1500, "output_tokens": 200, "low_confidence": false}})");
  EXPECT_EQ(
      lines[7],
      R"({"ts": "2025-11-16T19:05:17Z", "run_id": "run-42", "hotspot_id": "share-dialog", "phase": 2, "agent": "acme", )"
      R"("source": "act", "step": 7, "max_steps": 8, "vision": {"terminal": "declare_success"}, "final": true, )"
      R"("outcome": "success", "steps_used": 7})");
  EXPECT_EQ(test::read_file("tests/fixtures/vision/auto/share-dialog/run-42_1763319900.png"), "PNG bytes");
}

// One rail a row: what the model answers, how the mission ends.
struct Rail {
  const char* name;
  std::vector<std::string> answers;
  std::function<void(ActLoopOptions&)> set;
  std::string reason;
  const char* outcome = "escalate";
  std::size_t records = 2, actions = 0;
};

TEST_F(ActLoop, Rails) {
  const auto none = [](ActLoopOptions&) {};
  const auto read_only = [](ActLoopOptions& o) { o.read_only(); };
  const auto near = [](const char* x) {
    return proposal("click", 1, std::string(R"(, "x_ratio": )") + x + R"(, "y_ratio": 0.3)");
  };
  const std::string long_reason =
      test::tool_call(R"({"action": "click", "confidence": 0.42, "reason": ")" + std::string(200, 'r') + "\"}");
  const Rail rails[] = {
      {"no steps",
       {},
       [](ActLoopOptions& o) { o.max_steps(0); },
       "step cap (0) reached without a terminal action",
       "escalate",
       1},
      {"step cap",
       {proposal("wait", 1), near("0.1")},
       [](ActLoopOptions& o) { o.max_steps(2); },
       "step cap (2) reached without a terminal action",
       "escalate",
       3,
       1},
      {"model failure", {proposal("declare_failure", 0.1)}, none, "because", "failure"},
      {"model escalation", {proposal("escalate_to_cua", 0.1)}, read_only, "because"},
      {"guessed success",
       {proposal("declare_success", 0.456)},
       none,
       "low-confidence success claim (0.46) — not trusted: because"},
      {"guess",
       {long_reason},
       read_only,
       "low-confidence click proposal (0.42) — not acted on: " + std::string(160, 'r')},
      {"read-only", {proposal("scroll", 1)}, read_only, "read-only hotspot — vision proposed scroll; deferring to CUA"},
      {"read-only success", {proposal("declare_success", 1)}, read_only, "because", "success"},
      {"repeats",
       {near("0.501"), near("0.499"), near("0.50")},
       none,
       "repeated identical click 3x with no progress",
       "escalate",
       4,
       2},
      {"repeats of zero",
       {near("0.0"), near("-0.0"), near("0")},
       none,
       "repeated identical click 3x with no progress",
       "escalate",
       4,
       2},
      {"broken run of repeats",
       {near("0.5"), near("0.5"), near("0.6"), near("0.5"), proposal("escalate_to_cua", 1)},
       none,
       "because",
       "escalate",
       6,
       4},
      {"abort",
       {proposal("key", 1, R"(, "key": "a")"), proposal("wait", 1)},
       [](ActLoopOptions& o) { o.should_abort([n = 0]() mutable { return ++n == 3; }); },
       "aborted by caller before step 3",
       "escalate",
       3,
       1},
      {"broken abort probe",
       {proposal("declare_success", 1)},
       [](ActLoopOptions& o) { o.should_abort([]() -> bool { throw 42; }); },
       "because",
       "success"},
      {"unusable action",
       {near("0.5"), proposal("click", 1)},
       none,
       "execute_action(click) failed at step 2: invalid_argument: click action requires x_ratio + y_ratio",
       "escalate",
       3,
       1},
      {"broken answer", {"{}"}, none, "unexpected error: InvalidResponse: the response has no content", "failure"},
  };
  for (const auto& rail : rails) {
    SCOPED_TRACE(rail.name);
    std::filesystem::remove_all("logs");
    page.actions.clear();
    for (const auto& answer : rail.answers) model->answer(answer);
    ActLoopOptions options(context, "h");
    rail.set(options);
    const auto result = run(options);
    EXPECT_EQ(result.reason, rail.reason);
    EXPECT_EQ(page.actions.size(), rail.actions);
    const auto logged = records();
    ASSERT_EQ(logged.size(), rail.records);
    EXPECT_EQ(logged.back().at("outcome"), rail.outcome);
    EXPECT_EQ(logged.back().at("final"), true);
    EXPECT_EQ(logged.back().at("step"), logged.back().at("steps_used"));
    EXPECT_EQ(logged.back().at("vision").as_object().contains("terminal"), result.model_used == "light-model");
    EXPECT_EQ(model->steps.size(), 0u);
  }
}

TEST_F(ActLoop, MissionText) {
  EXPECT_EQ(_act_mission_text(std::nullopt), std::nullopt);
  EXPECT_EQ(_act_mission_text(""), std::nullopt);
  const std::string text = *_act_mission_text("B");
  EXPECT_TRUE(text.starts_with("MULTI-STEP MISSION — you are driving this mission ONE action per response;")) << text;
  EXPECT_THAT(text, HasSubstr("in `reason` verbatim. Never type status phrases into the page.\n--- MISSION BRIEF "
                              "---\nB\n--- END BRIEF ---\nIf the"));
  EXPECT_TRUE(text.ends_with("captcha/human-verification), respond escalate_to_cua."));
}

TEST_F(ActLoop, ExecuteAction) {
  const auto execute = [&](const char* verb, const std::function<void(ActionResult&)>& set) {
    ActionResult result(verb, "", 1, "");
    set(result);
    const double before = world.seconds();
    page.actions.clear();
    try {
      world.run(execute_action(page, result, meta));
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return (page.actions.empty() ? "" : page.actions.front()) + " " + std::to_string(world.seconds() - before);
  };
  const auto nothing = [](ActionResult&) {};
  for (const char* verb : {"declare_success", "declare_failure", "escalate_to_cua", "juggle", ""}) {
    EXPECT_EQ(execute(verb, nothing), " 0.000000") << verb;
  }
  EXPECT_EQ(execute("click",
                    [](auto& r) {
                      r.x_ratio = 0.0;
                      r.y_ratio = 0.25;
                    }),
            "click [0E0,2E2] 0.000000");
  EXPECT_EQ(execute("click", [](auto& r) { r.x_ratio = 0.5; }), "click action requires x_ratio + y_ratio");
  EXPECT_EQ(execute("type", [](auto& r) { r.text = ""; }), "type  20 0.000000");
  EXPECT_EQ(execute("type", nothing), "type action requires text");
  EXPECT_EQ(execute("scroll", [](auto& r) { r.scroll_dy_ratio = 0.0; }), "wheel [0E0,4E2] 0.000000");
  EXPECT_EQ(execute("scroll", [](auto& r) { r.scroll_dy_ratio = -1.0; }), "wheel [0E0,-8E2] 0.000000");
  EXPECT_EQ(execute("key", [](auto& r) { r.key = "Control+a"; }), "press Control+a 0.000000");
  EXPECT_EQ(execute("key", nothing), "key action requires key");
  EXPECT_EQ(execute("wait", nothing), " 0.500000");
  EXPECT_EQ(execute("wait", [](auto& r) { r.duration_ms = 0; }), " 0.500000");
  EXPECT_EQ(execute("wait", [](auto& r) { r.duration_ms = 20000; }), " 20.000000");
  EXPECT_EQ(execute("wait", [](auto& r) { r.duration_ms = -5; }), " 0.000000");
}

}  // namespace
}  // namespace vision
