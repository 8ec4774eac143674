#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <map>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/text/json_text.hpp"
#include "vision/vision.hpp"

namespace vision {
namespace {

using test::proposal;
using testing::ElementsAre;
using testing::HasSubstr;
namespace asio = boost::asio;

asio::awaitable<void> pause(double seconds) {
  co_await runtime::sleep_for(runtime::to_duration(seconds));
}

class Modes : public testing::Test {
 protected:
  ObserverOptions options() {
    ObserverOptions made(context, "site");
    made.vision(client).run_id("r");
    return made;
  }

  /// The "vision" and "cua" members of the only record, as text.
  std::string logged() const {
    const auto lines = test::read_lines("logs/vision_shadow.jsonl");
    if (lines.size() != 1) return std::to_string(lines.size()) + " records";
    return lines[0].substr(lines[0].find("\"vision\": "));
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::ScopedEnv log_path{"KX_VISION_SHADOW_LOG", std::nullopt};
  test::LogCapture log;
  test::World world;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClient client{model};
  FlowContext context = {{"platform", "acme"}, {"context_hint", "the caller's"}};
};

const std::string click_block =
    R"("vision": {"action": "click", "reason": "because", "confidence": 0.7, "next_expected_state": "next", )"
    R"("x_ratio": null, "y_ratio": null, "model": "light-model", "latency_ms": 500.0, "input_tokens": 1500, )"
    R"("output_tokens": 200, "low_confidence": false})";

template <class T>
auto agent(T value, double seconds = 1.2349) {
  return [value = std::make_shared<T>(std::move(value)), seconds]() -> asio::awaitable<T> {
    co_await pause(seconds);
    co_return std::move(*value);
  };
}

TEST_F(Modes, ShadowPairsTheProposalWithTheAgentsOutcome) {
  model->answer(proposal("click", 0.7));
  const boost::json::object panel = {{"text", std::string(300, 'p')}, {"other", 1}};
  EXPECT_EQ(world.run(shadow_observe_then_cua(page, agent(panel), options())), panel);
  EXPECT_EQ(logged(), click_block + R"(, "cua": {"latency_ms": 1234, "text_head": ")" + std::string(200, 'p') + "\"}}");
  EXPECT_THAT(test::read_file("logs/vision_shadow.jsonl"),
              HasSubstr(R"("run_id": "r", "hotspot_id": "site", "phase": null, "agent": "acme", "vision")"));
  EXPECT_TRUE(page.actions.empty());
}

TEST_F(Modes, ShadowTakesAnyResult) {
  for (int i = 0; i < 6; ++i) model->answer(proposal("click", 0.7));
  EXPECT_EQ(*world.run(shadow_observe_then_cua(page, agent(std::make_unique<int>(7)), options())), 7);
  EXPECT_EQ(world.run(shadow_observe_then_cua(page, agent(std::string("plain")), options())), "plain");
  world.run(shadow_observe_then_cua(page, agent(boost::json::value({{"text", false}})), options()));
  world.run(shadow_observe_then_cua(page, agent(std::map<std::string, int>{{"text", 5}}), options()));
  world.run(shadow_observe_then_cua(page, agent(std::map<std::string, std::any>{{"text", 5}}), options()));
  bool ran = false;
  world.run(shadow_observe_then_cua(
      page,
      [&, owned = std::make_unique<int>(1)]() -> asio::awaitable<void> {
        ran = true;
        co_return;
      },
      options()));
  EXPECT_TRUE(ran);
  std::vector<std::string> heads;
  for (const auto& line : test::read_lines("logs/vision_shadow.jsonl")) {
    heads.push_back(std::string(boost::json::parse(line).at("cua").at("text_head").as_string()));
  }
  EXPECT_THAT(heads, ElementsAre("", "", "", "5", "", ""));
}

TEST_F(Modes, VisionsFailuresStayInTheRecord) {
  struct Row {
    const char* name;
    std::function<void()> set;
    const char* block;
  };
  const Row rows[] = {
      {"the call times out", [&] { model->answer("", 1e9); },
       R"({"timeout": true, "elapsed_ms": 20000, "reason": "vision timeout after 20.0s"})"},
      {"no tool call", [&] { model->answer(R"({"content": []})"); },
       R"({"error": "model did not return propose_action tool call", "elapsed_ms": 500})"},
      {"the page is closed",
       [&] { page.before = [](std::string) -> asio::awaitable<void> { throw std::logic_error("closed"); }; },
       R"({"error": "logic_error: closed", "elapsed_ms": 0})"},
      {"the page hangs", [&] { page.before = [](std::string) { return pause(1e9); }; },
       R"({"timeout": true, "elapsed_ms": 28000})"},
      {"the budget is spent", [&] { client.metrics.call_count = 50; },
       R"({"error": "BudgetExceeded: Vision call budget 50 exceeded \u2014 escalate to CUA", "elapsed_ms": 0})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    row.set();
    EXPECT_EQ(world.run(shadow_observe_then_cua(page, agent(7), options())), 7);
    EXPECT_THAT(logged(), testing::StartsWith(std::string("\"vision\": ") + row.block));
    std::filesystem::remove_all("logs");
    if (client.metrics.call_count < 50) row.set();
    const auto record = world.run(observe_only(page, options()));
    EXPECT_EQ(text::to_json(record.at("vision")), row.block);
    EXPECT_EQ(text::to_json(record) + "\n", test::read_file("logs/vision_shadow.jsonl"));
    std::filesystem::remove_all("logs");
    page.before = nullptr;
  }
}

TEST_F(Modes, ObserverRecord) {
  model->answer(proposal("click", 0.7));
  const boost::json::object truth = {{"label", "Save"}, {"true_x_ratio", 0.5}, {"true_y_ratio", nullptr}};
  world.run(observe_only(page, options().dom_ground_truth(truth)));
  EXPECT_EQ(logged(),
            click_block + R"(, "dom_ground_truth": {"label": "Save", "true_x_ratio": 0.5, "true_y_ratio": null}})");
  EXPECT_THAT(test::read_file("logs/vision_shadow.jsonl"),
              HasSubstr(R"("agent": "acme", "source": "dom_success", "vision")"));
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
  {
    asio::io_context destroyed_meanwhile;
    observe_in_background(destroyed_meanwhile.get_executor(), std::make_shared<test::ScriptedPage>(), options());
  }
}

TEST_F(Modes, WithoutAClientTheHostsCallablesAreNotRun) {
  const test::ScopedEnv no_key("ANTHROPIC_API_KEY", std::nullopt);
  int runs = 0;
  const auto count = [&]() -> asio::awaitable<void> {
    ++runs;
    co_return;
  };
  EXPECT_THROW(world.run(shadow_observe_then_cua(page, count, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_THROW(world.run(with_vision_fallback(page, count, FallbackOptions(context))), std::runtime_error);
  EXPECT_THROW(world.run(observe_only(page, ObserverOptions(context, "s"))), std::runtime_error);
  EXPECT_EQ(runs, 0);
  EXPECT_FALSE(std::filesystem::exists("logs"));
}

// The recommended way to call: named callables moved in, inside one coroutine.
TEST_F(Modes, MoveOnlyCallablesInsideACoroutine) {
  model->answer(proposal("click", 1)).answer(proposal("escalate_to_cua", 1));
  const auto host = [&]() -> asio::awaitable<void> {
    auto agent_fn = [owned = std::make_unique<std::string>("a long enough text to need the heap")]()
        -> asio::awaitable<std::string> { co_return *owned; };
    auto shadow_options = options();
    EXPECT_EQ((co_await shadow_observe_then_cua(page, std::move(agent_fn), std::move(shadow_options))).size(), 35u);
    auto step = [owned = std::make_unique<int>(1)]() -> asio::awaitable<int> { throw *owned; };
    auto fallback = [owned = std::make_unique<int>(2)](BrowserPage&, const FlowContext&,
                                                       const std::string&) -> asio::awaitable<int> {
      co_return *owned;
    };
    auto rescue_options = FallbackOptions(context).vision(client);
    const auto result =
        co_await with_vision_fallback(page, std::move(step), std::move(rescue_options), std::move(fallback));
    EXPECT_EQ(std::get<2>(result), 2);
  };
  world.run(host());
}

}  // namespace
}  // namespace vision
