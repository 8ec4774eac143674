// What a caller may write: options, values, completion tokens, and how an ending is told.
#include <gmock/gmock.h>

#include <boost/asio/use_future.hpp>

#include "chromium/launch_options.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/settings/internal/log.hpp"

namespace vision {
namespace {

using test::pause;
using test::proposal;
using testing::HasSubstr;
namespace asio = boost::asio;

template <class... Chained>
constexpr bool are_values = (!std::is_reference_v<Chained> && ...);
static_assert(are_values<decltype(AskOptions().timeout_s(8)), decltype(VisionClientOptions().http({})),
                         decltype(ActLoopOptions({}, "").run_id({})), decltype(ObserverOptions({}, "").run_id("")),
                         decltype(FallbackOptions({}).high_stakes(true)), decltype(ScreenshotOptions().full_page(true)),
                         decltype(HttpOptions().ca_file("")), decltype(chromium::LaunchOptions().headless(true)),
                         decltype(chromium::ConnectOptions().allow_remote(true)),
                         decltype(chromium::PageOptions().device_pixel_ratio(2))>,
              "a reference to a chain on a temporary must keep it alive");
static_assert(!std::is_constructible_v<Seconds, bool> && std::is_convertible_v<int, Seconds>);
static_assert(!std::is_copy_constructible_v<VisionClient> && !std::is_move_constructible_v<VisionClient>);

TEST(Options, LookingAtOneChangesNothing) {
  const auto& kept = AskOptions().prompt(std::string(100, 'p')).timeout_s(8);
  EXPECT_EQ(kept.prompt(), std::string(100, 'p'));
  ActLoopOptions mission({}, "site");
  for (int look = 0; look < 2; ++look) EXPECT_FALSE(mission.read_only() || mission.high_stakes());
  EXPECT_EQ(mission.run_id("r").mission_prompt(std::nullopt).run_id(), "r");
}

TEST(Values, AreMadeFromWhatACallerHas) {
  const std::vector<unsigned char> vector = {'P', 0, 0xFF};
  const std::array<std::byte, 3> array = {std::byte{'P'}, std::byte{0}, std::byte{0xFF}};
  EXPECT_EQ(Bytes(vector).view(), std::string("P\0\xFF", 3));
  EXPECT_EQ(Bytes(array), Bytes(vector));
  EXPECT_EQ(ActionResult(ActionVerb::click, "why", 1.0, "").action, "click");
}

TEST(MetricsDeathTest, EstimateACostWithoutARegistry) {
  const auto estimate = [] {
    VisionMetrics metrics;
    metrics.by_model.increment("light-model");
    metrics.total_input_tokens = metrics.total_output_tokens = 1'000'000;
    std::exit(metrics.estimated_cost_usd() == 30 ? 0 : 1);
  };
  EXPECT_EXIT(estimate(), testing::ExitedWithCode(0), "");
}

TEST(Log, GoesToStandardErrorAtTheLevelOfTheMoment) {
  spdlog::drop("vision");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  for (const auto level : {spdlog::level::warn, spdlog::level::debug, spdlog::level::info}) {
    spdlog::set_level(level);
    log::line(spdlog::level::debug, "a debug line");
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, HasSubstr("[vision] [debug] a debug line"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1);
}

class Api : public testing::Test {
 protected:
  AskOptions options() { return AskOptions().transport_retry(false).timeout_s(8); }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::ScopedEnv log_path{"KX_VISION_SHADOW_LOG", std::nullopt};
  test::LogCapture log;
  test::VirtualLoop world;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClient client{model};
};

TEST_F(Api, EveryOperationTakesAsiosCompletionTokens) {
  const FlowContext context;
  const ImgMeta meta(1, 1, 1, 0);
  ObserverOptions site({}, "site");
  site.vision(client);
  ActLoopOptions mission({}, "site");
  mission.vision(client);
  FallbackOptions wrapper({});
  wrapper.vision(client);
  const auto one = []() -> asio::awaitable<int> { co_return 1; };
  const auto spawn = [&](auto start) {
    using Value = typename decltype(start())::value_type;
    for (int call = 0; call < 2; ++call) model->answer(proposal("declare_success", 0.9));
    auto future = asio::co_spawn(world.io, start(), asio::use_future);
    std::exception_ptr error = std::make_exception_ptr(std::logic_error("the handler was not called"));
    if constexpr (std::is_void_v<Value>) {
      asio::co_spawn(world.io, start(), [&error](std::exception_ptr e) { error = e; });
    } else {
      asio::co_spawn(world.io, start(), [&error](std::exception_ptr e, const Value&) { error = e; });
    }
    world.run(pause(10));
    EXPECT_FALSE(error);
    model->steps.clear();
    return future.get();
  };
  EXPECT_EQ(spawn([&] { return client.ask(Bytes(), meta, context); }).action, "declare_success");
  EXPECT_EQ(spawn([&] { return client.act(page, context); }).action, "declare_success");
  EXPECT_EQ(spawn([&] { return client.screenshot(page); }).second.width_css, 1280);
  spawn([&] { return execute_action(page, ActionResult(ActionVerb::wait, "", 1, ""), meta); });
  EXPECT_EQ(spawn([&] { return act_loop(page, mission); }).action, "declare_success");
  EXPECT_EQ(spawn([&] { return observe_only(page, site); })["source"], "dom_success");
  EXPECT_EQ(spawn([&] { return shadow_observe_then_cua(page, one, site); }), 1);
  EXPECT_EQ(spawn([&] { return with_vision_fallback(page, one, wrapper); }).step(), 1);
}

TEST_F(Api, ACallSaysHowItEnded) {
  const std::pair<std::function<void()>, Cause> rows[] = {
      {[&] { model->answer(proposal("declare_failure", 1)); }, Cause::model_answer},
      {[&] { model->answer(proposal("click", 1), 9); }, Cause::call_timed_out},
      {[&] { model->fail(APIConnectionError("gone")); }, Cause::transport_error},
      {[&] { model->fail(std::runtime_error("broken")); }, Cause::unexpected_error},
      {[&] { model->answer("{}"); }, Cause::unexpected_error},
      {[&] { model->answer(R"({"content": []})"); }, Cause::no_tool_call},
  };
  for (const auto& [set, cause] : rows) {
    set();
    const auto result = world.run(client.ask(Bytes(), ImgMeta(1, 1, 1, 0), {}, options()));
    EXPECT_EQ(result.cause, cause) << result.reason;
    if (cause == Cause::call_timed_out) continue;  // the calls of a mission have 20 s
    set();
    if (cause == Cause::transport_error) model->steps.push_back(model->steps.front());  // a mission tries again
    ActLoopOptions mission({}, "site");
    mission.vision(client);
    EXPECT_EQ(world.run(act_loop(page, mission)).cause, cause) << "passed on as it is";
  }
}

TEST_F(Api, AMissionSaysHowItEnded) {
  using Options = ActLoopOptions;
  const auto plain = [](Options&) {};
  const auto before = [&](auto operation) { return [&, operation](Options&) { page.before = operation; }; };
  const auto hang = [](std::string) { return pause(1e9); };
  const auto fail = [](std::string) -> asio::awaitable<void> { throw std::runtime_error("crashed"); };
  const std::tuple<Cause, std::string, std::function<void(Options&)>> rows[] = {
      {Cause::model_answer, proposal("declare_success", 1), plain},
      {Cause::step_cap, proposal("wait", 1), [](Options& o) { o.max_steps(2); }},
      {Cause::aborted, "", [](Options& o) { o.should_abort([] { return true; }); }},
      {Cause::repeated_proposal, proposal("wait", 1), plain},
      {Cause::uncertain_action, proposal("click", 0.5), plain},
      {Cause::uncertain_success, proposal("declare_success", 0.5), plain},
      {Cause::read_only, proposal("scroll", 1), [](Options& o) { o.read_only(true); }},
      {Cause::step_timed_out, "", before(hang)},
      {Cause::step_failed, "", before(fail)},
      {Cause::budget_exhausted, "", [&](Options&) { client.metrics.call_count = DEFAULT_CALL_BUDGET; }},
      {Cause::action_failed, proposal("click", 1), plain},
  };
  for (const auto& [cause, answer, set] : rows) {
    model->steps.clear();
    for (int step = 0; step < ACT_REPEAT_LIMIT; ++step) model->answer(answer);
    page.before = nullptr;
    client.metrics.reset();
    Options mission({}, "site");
    mission.vision(client);
    set(mission);
    const auto result = world.run(act_loop(page, mission));
    EXPECT_EQ(result.cause, cause) << result.reason;
  }
}

TEST_F(Api, ACallbackThatThrowsIsNotCalledAFailedObservation) {
  observe_in_background(world.io.get_executor(), {}, ObserverOptions({}, "gone").vision(client),
                        [](std::exception_ptr, boost::json::object) { throw std::runtime_error("mine"); });
  world.run(pause(1));
  EXPECT_THAT(log.lines(), testing::ElementsAre("warning: vision: on_end callback raised: mine"));
}

}  // namespace
}  // namespace vision
