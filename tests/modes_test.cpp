#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <map>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
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

struct AgentError : std::runtime_error, CuaOriginMark {
  using std::runtime_error::runtime_error;
};

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

TEST_F(Modes, ShadowGivesBackTheAgentsVeryError) {
  const auto error = std::make_exception_ptr(AgentError("boom"));
  EXPECT_FALSE(is_cua_origin(error));
  model->fail(APIConnectionError("down"));
  try {
    world.run(shadow_observe_then_cua(
        page, [&]() -> asio::awaitable<int> { std::rethrow_exception(error); }, options()));
    FAIL() << "the agent's error was lost";
  } catch (const AgentError& caught) {
    EXPECT_EQ(std::current_exception(), error);
    EXPECT_TRUE(caught._kx_cua_origin && is_cua_origin(caught));
  }
  EXPECT_EQ(logged(), R"("vision": {"error": "transport error: APIConnectionError: down", "elapsed_ms": 500}, )"
                      R"("cua": {"error": "AgentError: boom"}})");
  model->answer(proposal("click", 1));
  EXPECT_THROW(world.run(shadow_observe_then_cua(
                   page,
                   []() -> asio::awaitable<void> {
                     co_await pause(1);
                     throw 42;
                   },
                   options())),
               int);
  EXPECT_FALSE(is_cua_origin(std::make_exception_ptr(42)));
  EXPECT_FALSE(is_cua_origin(std::exception_ptr()));
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

// How the wrapper ended, as text: the way and the value, or the error.
template <class Primary, class Agent>
std::string rescued(test::World& world, test::ScriptedPage& page, Primary primary, FallbackOptions options,
                    Agent agent) {
  try {
    const auto result = world.run(with_vision_fallback(page, std::move(primary), options, std::move(agent)));
    const std::string way = std::to_string(result.index()) + " ";
    if (result.index() == 0) return way + std::to_string(std::get<0>(result));
    if (result.index() == 1) return way + std::get<1>(result).action;
    if constexpr (!std::is_same_v<Agent, NoFallback>) return way + std::get<2>(result);
    return way;
  } catch (const std::exception& e) {
    return e.what();
  } catch (int i) {
    return "int " + std::to_string(i);
  }
}

TEST_F(Modes, FallbackPaths) {
  const std::string at = R"(, "x_ratio": 0.5, "y_ratio": 0.5)";
  struct Row {
    const char* name;
    int failures;
    std::string answer;
    const char *with_agent, *without;
    int runs;
    std::size_t actions;
  };
  const Row rows[] = {
      {"no failure", 0, "", "0 1", "0 1", 1, 0},
      {"guessed success", 1, proposal("declare_success", 0.3), "1 declare_success", "1 declare_success", 1, 0},
      {"escalation", 1, proposal("escalate_to_cua", 1), "2 agent: because", "run 1 failed", 1, 0},
      {"failure", 1, proposal("declare_failure", 1), "2 agent: because", "run 1 failed", 1, 0},
      {"guess", 1, proposal("click", 0.59, at), "2 agent: because", "run 1 failed", 1, 0},
      {"failed call", 1, "{}", "2 agent: unexpected error: InvalidResponse: the response has no content",
       "run 1 failed", 1, 0},
      {"click", 1, proposal("click", 0.6, at), "0 2", "0 2", 2, 1},
      {"click in vain", 2, proposal("click", 0.6, at), "run 2 failed", "run 2 failed", 2, 1},
      {"unusable click", 1, proposal("click", 1), "click action requires x_ratio + y_ratio",
       "click action requires x_ratio + y_ratio", 1, 0},
  };
  const auto options = [this] { return FallbackOptions(context).vision(client); };
  for (const auto& row : rows) {
    for (const bool with_agent : {true, false}) {
      SCOPED_TRACE(row.name);
      page.actions.clear();
      model->steps.clear();
      if (!row.answer.empty()) model->answer(row.answer);
      int runs = 0;
      const auto primary = [&]() -> asio::awaitable<int> {
        if (++runs <= row.failures) throw std::runtime_error("run " + std::to_string(runs) + " failed");
        co_return runs;
      };
      const auto agent = [&](BrowserPage& given, const FlowContext& copy,
                             const std::string& reason) -> asio::awaitable<std::string> {
        EXPECT_EQ(&given, &page);
        EXPECT_EQ(copy.at("context_hint"), "playwright failed: runtime_error: run 1 failed");
        co_return "agent: " + reason;
      };
      EXPECT_EQ(with_agent ? rescued(world, page, primary, options(), agent)
                           : rescued(world, page, primary, options(), NoFallback()),
                with_agent ? row.with_agent : row.without);
      EXPECT_EQ(runs, row.runs);
      EXPECT_EQ(page.actions.size(), row.actions);
    }
  }
  EXPECT_EQ(context.at("context_hint"), "the caller's");
  EXPECT_FALSE(std::filesystem::exists("logs"));
}

TEST_F(Modes, FallbackLetsErrorsThroughUnchanged) {
  const auto options = FallbackOptions(context).vision(client);
  const auto broken = []() -> asio::awaitable<int> { throw 42; };
  model->answer(proposal("escalate_to_cua", 1));
  EXPECT_EQ(rescued(world, page, broken, options, NoFallback()), "int 42");
  model->answer(proposal("escalate_to_cua", 1));
  using Agent = std::function<asio::awaitable<std::string>(BrowserPage&, const FlowContext&, const std::string&)>;
  EXPECT_EQ(rescued(world, page, broken, options, Agent()), "int 42");
  client.metrics.call_count = 50;
  EXPECT_THAT(rescued(world, page, broken, options, NoFallback()), HasSubstr("Vision call budget 50"));
  page.before = [](std::string) -> asio::awaitable<void> { throw std::runtime_error("closed"); };
  EXPECT_EQ(rescued(world, page, broken, options, NoFallback()), "closed");
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

// A page and callables that clean up after a cancellation the way Asio has it:
// with the cancellation state reset, and their error swallowed.
asio::awaitable<void> stubborn_pause(double seconds) {
  const auto outcome = co_await runtime::detail::guard(runtime::done(pause(seconds)));
  co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
  co_await pause(0.1);
}

TEST_F(Modes, CancellationAtEveryTurnPassesAndStopsEverything) {
  using Run = std::function<void()>;
  bool stubborn = false;
  const auto wait = [&](double seconds) { return stubborn ? stubborn_pause(seconds) : pause(seconds); };
  page.before = [&](std::string) { return wait(0.1); };
  const auto agent_leg = [&]() -> asio::awaitable<int> {
    co_await wait(1);
    co_return 7;
  };
  const auto step = [&]() -> asio::awaitable<int> {
    co_await wait(0.1);
    throw std::runtime_error("stale");
  };
  const auto hand_over = [&](auto&&...) -> asio::awaitable<int> {
    co_await wait(1);
    co_return 1;
  };
  const std::pair<const char*, Run> modes[] = {
      {"act loop", [&] { world.run(act_loop(page, ActLoopOptions(context, "s").vision(client).max_steps(2))); }},
      {"shadow mode", [&] { world.run(shadow_observe_then_cua(page, agent_leg, options())); }},
      {"observer", [&] { world.run(observe_only(page, options())); }},
      {"wrapper",
       [&] { world.run(with_vision_fallback(page, step, FallbackOptions(context).vision(client), hand_over)); }},
      {"act", [&] { world.run(client.act(page, context)); }},
  };
  for (const auto& [name, run] : modes) {
    for (const bool is_stubborn : {false, true}) {
      stubborn = is_stubborn;
      bool finished = false;
      for (std::size_t turn = 0; !finished; ++turn) {
        SCOPED_TRACE(std::string(name) + (stubborn ? ", stubborn host" : "") + ", cancelled at turn " +
                     std::to_string(turn));
        std::filesystem::remove_all("logs");
        model->steps.clear();
        for (int i = 0; i < 2; ++i)
          model->answer(proposal(name == std::string("wrapper") ? "escalate_to_cua" : "scroll", 1));
        client.metrics.reset();
        world.cancel_at_turn(turn);
        const std::size_t requests = model->bodies.size();
        try {
          run();
          finished = true;
        } catch (const boost::system::system_error&) {
          EXPECT_EQ(world.time->pending(), 0u);
          EXPECT_LE(model->bodies.size() - requests, 2u);
          for (const auto& line : test::read_lines("logs/vision_shadow.jsonl")) {
            EXPECT_THAT(line, testing::AllOf(HasSubstr("\"act\""), testing::Not(HasSubstr("\"final\""))));
          }
        }
        ASSERT_LT(turn, 10000u) << "never ran to its end";
      }
    }
  }
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
