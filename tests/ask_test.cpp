#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/vision_client.hpp"

namespace vision {
namespace {

using test::proposal;
using test::ScriptedModel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
namespace asio = boost::asio;

class Ask : public testing::Test {
 protected:
  Ask() { test::TestRegistry::instance(); }

  VisionClient& client() {
    if (!client_) client_.emplace(model, options);
    return *client_;
  }

  ActionResult ask(AskOptions ask_options = AskOptions()) {
    return world.run(client().ask(Bytes(std::string("PNG")), ImgMeta(1280, 800, 2.0, 0.0), context, ask_options));
  }

  // The ledger in one line: calls, tokens in and out, latencies and failures kept, calls by model.
  std::string ledger() {
    const auto& m = client().metrics;
    return std::to_string(m.call_count) + " " + std::to_string(m.total_input_tokens) + "/" +
           std::to_string(m.total_output_tokens) + " " + std::to_string(m.latencies_ms.size()) + " " +
           std::to_string(m.failures_by_reason.size()) + " " + std::to_string(m.by_model["light-model"]);
  }

  test::World world;
  test::LogCapture log;
  std::shared_ptr<ScriptedModel> model = std::make_shared<ScriptedModel>();
  VisionClientOptions options;
  FlowContext context = {{"workflow_name", "check\nout"}, {"phase", 3}};

 private:
  std::optional<VisionClient> client_;
};

TEST_F(Ask, AnAnswerIsRecordedHookedAndLoggedOnce) {
  const FlowContext* hooked_context = nullptr;
  options.on_action([&](const ActionResult& result, const FlowContext& seen) -> asio::awaitable<void> {
    hooked_context = &seen;
    EXPECT_EQ(result.action, "click");
    co_return;
  });
  model->answer(proposal("click", 0.85), 1.25);
  const ActionResult result = ask(AskOptions().prompt("Open the dialog"));
  EXPECT_EQ(result.latency_ms, 1250.0);
  EXPECT_EQ(ledger(), "1 1500/200 1 0 1");
  EXPECT_EQ(hooked_context, &context);
  EXPECT_THAT(model->user_text(0), HasSubstr("# Task\nOpen the dialog"));
  EXPECT_THAT(log.lines(), ElementsAre("info: vision: action=click confidence=0.85 workflow=check\\nout phase=3 "
                                       "model=light-model latency_ms=1250 tokens=1500/200 reason=because"));
}

TEST_F(Ask, ABrokenHookOrLogChangesNothing) {
  model->answer(proposal("click", 1)).answer(proposal("click", 1)).answer(proposal("click", 1));
  options.on_action([n = 0](const ActionResult&, const FlowContext&) mutable -> asio::awaitable<void> {
    if (++n == 1) throw std::runtime_error("hook\nbroke");
    co_await runtime::sleep_for(std::chrono::seconds(1));
    if (n == 2) throw 42;
  });
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask().action, "click");
  EXPECT_THAT(log.lines(),
              ElementsAre("warning: on_action hook raised: hook\\nbroke", StartsWith("info: vision: action"),
                          "warning: on_action hook raised: ", StartsWith("info: vision: action")));
  log.fail();
  EXPECT_EQ(ask().action, "click");
  EXPECT_EQ(ledger(), "3 4500/600 3 0 3");
}

TEST_F(Ask, TimeOutsAreFinalAndKeepTheKindOfNumber) {
  const std::tuple<Seconds, const char*, double> rows[] = {
      {20.0, "20.0", 20}, {8, "8", 8}, {0.25, "0.25", 0.25}, {std::nan(""), "20.0", 20}, {0, "0", 0}};
  for (const auto& [timeout, text, seconds] : rows) {
    const double before = world.seconds();
    model->answer(proposal("click", 1), 1e9);
    const ActionResult result = ask(AskOptions().timeout_s(timeout));
    EXPECT_EQ(result.reason, "vision timeout after " + std::string(text) + "s");
    EXPECT_EQ(world.seconds() - before, seconds);
    EXPECT_EQ(result.latency_ms, seconds * 1000);
  }
  EXPECT_EQ(model->bodies.size(), 5u);
  EXPECT_EQ(ledger(), "5 0/0 5 4 5");
  EXPECT_EQ(log.lines().at(1), "warning: vision: timeout after 8000ms (model=light-model, workflow=check\\nout)");
}

TEST_F(Ask, TheDefaultTimeOutIsTheSetting) {
  model->answer(proposal("click", 1), 1e9);
  EXPECT_EQ(ask().latency_ms, DEFAULT_TIMEOUT_S * 1000);
}

TEST_F(Ask, TransportErrorsAreRetriedOnceAfterAPause) {
  model->fail(RateLimitError("slow down", {429, "rate_limit_error", "r1"})).answer(proposal("wait", 1));
  const ActionResult result = ask();
  EXPECT_EQ(result.action, "wait");
  EXPECT_EQ(result.latency_ms, 500 + 1500 + 500);
  EXPECT_EQ(ledger(), "1 1500/200 1 0 1");
  EXPECT_EQ(log.lines().at(0), "info: vision: transport error, retrying once: slow down");
}

TEST_F(Ask, FinalTransportErrors) {
  model->fail(APITimeoutError("no answer")).fail(InternalServerError("down", {529, "overloaded_error", ""}));
  EXPECT_EQ(ask().reason, "transport error: InternalServerError: down");
  EXPECT_EQ(log.lines().size(), 1u);
  model->fail(APIConnectionError("refused"));
  EXPECT_EQ(ask(AskOptions().transport_retry(false)).reason, "transport error: APIConnectionError: refused");
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(ledger(), "2 0/0 2 2 2");
}

TEST_F(Ask, AnythingElseIsAnUnexpectedError) {
  model->fail(BadRequestError("no\nforcing", {400, "", ""}))
      .fail(42)
      .answer("[]")
      .answer(test::tool_call(R"({"confidence": []})"));
  for (const char* reason : {"unexpected error: BadRequestError: no\nforcing", "unexpected error: int: ",
                             "unexpected error: InvalidResponse: the response has no content",
                             "unexpected error: ConversionError: the model's confidence is no number: []",
                             "unexpected error: logic_error: no scripted answer left"}) {
    EXPECT_EQ(ask().reason, reason);
  }
  EXPECT_THAT(log.lines().at(0),
              StartsWith("error: vision: unexpected error\n    BadRequestError: no\\nforcing\n    at "));
  EXPECT_EQ(ledger(), "5 0/0 5 5 5");
  EXPECT_EQ(model->bodies.size(), 5u);
}

TEST_F(Ask, NothingIsSentOrRecordedBeforeTheGate) {
  options.call_budget(1);
  context["attempts"] = "x";
  EXPECT_THROW(ask(), ConversionError);
  context.erase("attempts");
  model->answer("{\"content\": []}");
  EXPECT_EQ(ask().reason, "model did not return propose_action tool call");
  try {
    ask();
    FAIL() << "the budget was not enforced";
  } catch (const BudgetExceeded& e) {
    EXPECT_STREQ(e.what(), "Vision call budget 1 exceeded — escalate to CUA");
  }
  EXPECT_EQ(model->bodies.size(), 1u);
  EXPECT_EQ(client().metrics.call_count, 1);
}

TEST_F(Ask, TheProcessWideClient) {
  reset_default_metrics();
  {
    const test::ScopedEnv no_key("ANTHROPIC_API_KEY", std::nullopt);
    EXPECT_THROW(default_client(), std::runtime_error);
  }
  const test::ScopedEnv key("ANTHROPIC_API_KEY", "a-key");
  VisionClient& made = default_client();
  EXPECT_EQ(&made, &default_client());
  made.metrics.call_count = 50;
  reset_default_metrics();
  EXPECT_EQ(made.metrics.call_count, 0);
}

TEST_F(Ask, ScreenshotMetadata) {
  test::ScriptedPage page;
  const auto shot = [&] { return world.run(client().screenshot(page)).second; };
  EXPECT_EQ(shot(), ImgMeta(1280, 800, 2.0, 1763319900.0));
  page.viewport = boost::json::object{{"width", 1280.7}, {"height", "720"}};
  for (const boost::json::value& unreadable : {boost::json::value("x"), boost::json::value()}) {
    page.device_pixel_ratio = unreadable;
    EXPECT_EQ(shot(), ImgMeta(1280, 720, 1.0, 1763319900.0));
  }
  page.before = [](std::string operation) -> asio::awaitable<void> {
    if (operation.starts_with("evaluate")) throw 42;
    co_return;
  };
  page.viewport.reset();
  EXPECT_EQ(shot(), ImgMeta(1280, 800, 1.0, 1763319900.0));
  page.viewport = boost::json::object{{"width", 5}};
  EXPECT_THROW(shot(), std::out_of_range);
  page.viewport = boost::json::object{{"width", 5}, {"height", nullptr}};
  EXPECT_THROW(shot(), ConversionError);
}

TEST_F(Ask, ActShowsTheViewportToTheHookOnly) {
  test::ScriptedPage page;
  FlowContext seen;
  options.on_action([&](const ActionResult&, const FlowContext& hooked) -> asio::awaitable<void> {
    seen = hooked;
    co_return;
  });
  model->fail(APIConnectionError("x")).answer(proposal("click", 1)).answer(proposal("click", 1));
  const FlowContext before = context;
  EXPECT_EQ(world.run(client().act(page, context, AskOptions().transport_retry(false))).action, "click");
  EXPECT_EQ(context, before);
  EXPECT_EQ(boost::json::serialize(seen["viewport"]), R"({"w":1280,"h":800,"dpr":2E0})");
  EXPECT_THAT(model->user_text(1), testing::Not(HasSubstr("viewport:")));
  context["viewport"] = "mine";
  world.run(client().act(page, context));
  EXPECT_EQ(seen["viewport"], "mine");
}

}  // namespace
}  // namespace vision
