#include <gmock/gmock.h>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/internal/body_reader.hpp"
#include "vision/client/internal/api_key.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/client/internal/response.hpp"

namespace vision {
namespace {

using test::proposal;
using testing::HasSubstr;
namespace asio = boost::asio;
namespace json = boost::json;

const ImgMeta meta(1280, 800, 2.0, 0.0);

class Client : public testing::Test {
 protected:
  test::TestRegistry& registry = test::TestRegistry::instance();
  test::VirtualLoop loop;
  test::LogCapture log;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  FlowContext context = {{"workflow_name", "check\nout"}, {"phase", 3}};
};

TEST_F(Client, PicksTheModel) {
  const std::pair<const char*, const char*> rows[] = {
      {"default", R"([{}, {"phase": "0"}, {"phase": null}, {"phase": 1}, {"workflow_name": "Captcha_detect"},
          {"attempts": 1.9}, {"attempts": true}, {"attempts": ""}, {"attempts": []}, {"attempts": {}},
          {"attempts": null}, {"attempts": -7}])"},
      {"heavy-model", R"([{"phase": 0}, {"phase": -0.0}, {"phase": false}, {"workflow_name": "phase0_login_verify"},
          {"workflow_name": "captcha_detect"}, {"attempts": 2}, {"attempts": 2.9}, {"attempts": " 2 "},
          {"attempts": 18446744073709551615}])"},
      {"none",
       R"([{"attempts": "x"}, {"attempts": "2.5"}, {"attempts": [2]}, {"attempts": " "}, {"attempts": 1e999}])"},
  };
  for (const auto& [expected, contexts] : rows) {
    const json::value parsed_contexts = json::parse(contexts);
    for (const json::value& row : parsed_contexts.as_array()) {
      std::string picked = "none";
      try {
        picked = _pick_model(row.as_object(), false, "default");
      } catch (const ConversionError&) {
      }
      EXPECT_EQ(picked, expected) << row;
      EXPECT_EQ(_pick_model(row.as_object(), true, "default"), "heavy-model") << row;
    }
  }
}

TEST_F(Client, UserMessage) {
  EXPECT_EQ(_build_user_message({}, std::nullopt, ImgMeta(1280, 800, 1.25, 0)),
            "# Workflow context\n\n# Viewport\n1280×800 CSS pixels (DPR 1.2)\n\n# Task\n"
            "Advance the workflow workflow. Current step: unknown. Goal: see workflow_name above.");
  const json::value all =
      json::parse(R"({"success_signals": ["ü", {"a": 1.0}], "attempts": 0, "phase": false, "viewport": 1,
      "workflow_name": "check\nout", "platform": 2.0, "context_hint": "", "forbidden_actions": [],
      "last_action": {}, "current_step": null, "expected_outcome": "paid"})");
  EXPECT_EQ(_build_user_message(all.as_object(), "", meta),
            "# Workflow context\nworkflow_name: check\nout\nphase: False\nexpected_outcome: paid\nattempts: 0\n"
            "platform: 2.0\nsuccess_signals: [\"\\u00fc\", {\"a\": 1.0}]\n\n# Viewport\n1280×800 CSS pixels (DPR 2.0)\n"
            "\n# Task\nAdvance the check\nout workflow. Current step: None. Goal: paid.");
}

// The file was written from the agreed wording, not by this code: every word of the
// instructions and of the tool is part of the contract.
TEST_F(Client, ConstantTextOfTheRequest) {
  EXPECT_EQ(request_prefix("m"), test::read_file(GOLDEN_FOLDER "request_prefix.txt"));
}

TEST_F(Client, RequestBody) {
  const auto prefix = std::make_shared<const std::string>(request_prefix("m\"1"));
  EXPECT_TRUE(prefix->starts_with(R"({"model": "m\"1", "max_tokens": 512, )"));
  const MessagesRequest request("m\"1", prefix, Bytes(std::string("\x00\xffPNG", 5)), "say \"hi\"\n—\xFF");
  const std::string text = request.body();
  EXPECT_EQ(text, *prefix + R"(AP9QTkc="}}, {"type": "text", "text": "say \"hi\"\n\u2014\ufffd"}]}]})");
  for (const std::size_t most : {1U, 2U, 3U, 5U, 7U, 64U}) {
    detail::http::BodyReader reader(request);
    for (std::size_t at = 0, room = 0; at < text.size(); at += room) {
      room = std::min(most, text.size() - at);
      const std::unique_ptr<char[]> out(new char[room]);  // its end is where the sanitizer looks
      ASSERT_EQ(reader.read(out.get(), room), room);
      EXPECT_EQ(std::string_view(out.get(), room), text.substr(at, room));
    }
  }
}

ActionResult parsed(const std::string& response, std::optional<ImgMeta> img_meta = meta) {
  return _parse_response(json::parse(response), "m", 12.5, img_meta);
}

TEST_F(Client, ParsesTheFirstToolCall) {
  ActionResult expected("click", "5", 1.7, "None");
  expected.x_ratio = 1238.0 / 1280;
  expected.y_ratio = 0.0;
  expected.text = "t";
  expected.scroll_dy_ratio = -3.0;
  expected.duration_ms = 250;
  expected.model_used = "m";
  expected.latency_ms = 12.5;
  expected.input_tokens = 7;
  EXPECT_EQ(
      parsed(R"({"usage": {"input_tokens": 7}, "content": [{"type": "text", "text": "hm"}, {"name": "propose_action"},
      {"type": "tool_use", "name": "other", "input": {}}, {"type": "tool_use", "name": "propose_action", "input": {
      "action": "click", "reason": 5, "confidence": "1.7", "next_expected_state": null, "x_ratio": "1238", "y_ratio": -1,
      "text": "t", "key": "", "scroll_dy_ratio": -3, "duration_ms": "250"}},
      {"type": "tool_use", "name": "propose_action", "input": {"action": "wait"}}]})"),
      expected);
  EXPECT_EQ(parsed(proposal("click", 1, R"(, "x_ratio": 1238)"), std::nullopt).x_ratio, 1.0);
  EXPECT_FALSE(parsed(proposal("clik", 0.6)).low_confidence);
  EXPECT_TRUE(parsed(proposal("declare_success", 0.59)).low_confidence);
}

TEST_F(Client, ParsesAnswersWithoutAUsableCall) {
  for (const std::string content : {"[]", "null", R"([1, "x", {"type": "tool_use"}])"}) {
    EXPECT_EQ(parsed(R"({"usage": {"input_tokens": 3, "output_tokens": 4}, "content": )" + content + "}"),
              _failure_result(Cause::no_tool_call, "model did not return propose_action tool call", "m", 12.5, 3, 4))
        << content;
  }
  EXPECT_EQ(parsed(test::tool_call("null")).action, "declare_failure");
  const std::string call = R"({"content": [{"type": "tool_use", "name": "propose_action")";
  for (const std::string& response : {std::string("{}"), std::string("[]"), std::string(R"({"content": 5})"),
                                      call + "}]}", call + R"(, "input": 5}]})"}) {
    EXPECT_THROW(parsed(response), InvalidResponse) << response;
  }
  for (const char* confidence : {"null", "[]", R"("high")"})
    EXPECT_THROW(parsed(test::tool_call(R"({"confidence": )" + std::string(confidence) + "}")), ConversionError);
}

TEST_F(Client, Metrics) {
  VisionMetrics metrics;
  EXPECT_EQ(metrics.p95(), 0.0);
  EXPECT_EQ(metrics.estimated_cost_usd(), 0.0);
  const auto record = [&](std::string reason, const char* name, double ms, std::int64_t in, std::int64_t out) {
    metrics.record(_failure_result(Cause::unexpected_error, std::move(reason), name, ms, in, out));
  };
  for (int i = 20; i >= 1; --i) record("", i % 4 == 0 ? "heavy-model" : "light-model", i, 2000, 250);
  EXPECT_EQ(metrics.p95(), 19.0);
  EXPECT_EQ(metrics.latencies_ms.front(), 20.0);
  EXPECT_DOUBLE_EQ(metrics.estimated_cost_usd(), 15 * 0.00975 + 5 * 0.01625);
  metrics.reset();
  metrics.latencies_ms = {30.0, 10.0};
  EXPECT_EQ(metrics.p95(), 10.0);
  record("a reason", "unknown", 0, 1000000, 1000000);
  EXPECT_DOUBLE_EQ(metrics.estimated_cost_usd(), 30.0);
  record("a reason", "", 0, INT64_MAX, INT64_MIN);
  EXPECT_EQ(metrics.total_input_tokens, INT64_MAX);
  EXPECT_EQ(metrics.by_model.size(), 1u) << "a result without a model counts for none";
  EXPECT_EQ(metrics.failures_by_reason["a reason"], 2);
  EXPECT_EQ(metrics.failures_by_reason["never seen"], 0);
}

TEST_F(Client, ApiKeyAndTheProcessWideClient) {
  const std::function<std::string()> none[] = {[] { return ""; }, []() -> std::string { throw 42; }, nullptr};
  const std::tuple<std::string, std::function<std::string()>, std::string, std::string> rows[] = {
      {"given", [] { return "from-registry"; }, "from-env", "given"},
      {"", [] { return "from-registry"; }, "from-env", "from-registry"},
      {"", none[0], " from-env\n", "from-env"},
      {"", none[1], "from-env", "from-env"},
      {"", none[2], "from-env", "from-env"},
      {" ", none[0], "from-env", "the API key from the api_key argument is blank"},
      {"", [] { return "\n"; }, "from-env", "the API key from the model registry's resolve_api_key is blank"},
      {"", none[2], " ", "the API key from the environment variable ANTHROPIC_API_KEY is blank"},
      {"", none[2], "", "VisionClient: no API key. Pass api_key= or set ANTHROPIC_API_KEY."},
  };
  for (const auto& [given, resolver, variable, expected] : rows) {
    registry.resolver = resolver;
    const test::ScopedEnv env("ANTHROPIC_API_KEY", variable);
    try {
      EXPECT_EQ(detail::resolve_api_key(given), expected);
    } catch (const std::exception& error) {
      EXPECT_EQ(error.what(), expected);
    }
  }
  const test::ScopedEnv env("ANTHROPIC_API_KEY", "from-env");
  EXPECT_THROW(VisionClient(std::shared_ptr<MessagesClient>()), std::invalid_argument);
  reset_default_metrics();
  VisionClient& made = default_client();
  EXPECT_EQ(&made, &default_client());
  made.metrics.call_count = 50;
  reset_default_metrics();
  EXPECT_EQ(made.metrics.call_count, 0);
}

TEST_F(Client, TimeOutsKeepTheKindOfNumber) {
  VisionClient client(model);
  const std::tuple<Seconds, const char*, double> rows[] = {
      {20.0, "20.0", 20}, {8, "8", 8}, {0.25, "0.25", 0.25}, {std::nan(""), "20.0", 20}, {0, "0", 0}};
  for (const auto& [timeout, text, seconds] : rows) {
    model->answer(proposal("click", 1), 1e9);
    const auto result = loop.run(client.ask(Bytes(std::string("PNG")), meta, context, AskOptions().timeout_s(timeout)));
    EXPECT_EQ(result.reason, "vision timeout after " + std::string(text) + "s");
    EXPECT_EQ(result.latency_ms, seconds * 1000);
  }
}

TEST_F(Client, ScreenshotMetadata) {
  VisionClient client(model);
  const auto shot = [&] { return loop.run(client.screenshot(page)).second; };
  EXPECT_EQ(shot(), ImgMeta(1280, 800, 2.0, 1763319900.0));
  page.viewport = json::object{{"width", 1280.7}, {"height", "720"}};
  for (const json::value& unreadable : {json::value("x"), json::value()}) {
    page.device_pixel_ratio = unreadable;
    EXPECT_EQ(shot(), ImgMeta(1280, 720, 1.0, 1763319900.0));
  }
  page.viewport.reset();
  EXPECT_EQ(shot(), ImgMeta(1280, 800, 1.0, 1763319900.0));
  page.viewport = json::object{{"width", 5}};
  EXPECT_THROW(shot(), std::out_of_range);
  page.viewport = json::object{{"width", 5}, {"height", nullptr}};
  EXPECT_THROW(shot(), ConversionError);
}

struct BrokenSink : spdlog::sinks::base_sink<std::mutex> {
  void sink_it_(const spdlog::details::log_msg&) override { throw 42; }
  void flush_() override {}
};

TEST_F(Client, ActShowsTheViewportToTheHookOnlyAndNoBrokenHookOrLogDisturbsIt) {
  FlowContext seen;
  VisionClientOptions options;
  options.on_action([&](const ActionResult&, const FlowContext& hooked) -> asio::awaitable<void> {
    seen = hooked;
    throw 42;
    co_return;
  });
  VisionClient client(model, options);
  const std::string reason(81, 'r');
  const std::string answer = test::tool_call(R"({"action": "click", "confidence": 0.85, "reason": ")" + reason + "\"}");
  model->fail(APIConnectionError("x")).answer(answer).answer(answer);
  const auto ask_options = AskOptions().prompt("Open it").transport_retry(false);  // act retries all the same
  EXPECT_EQ(loop.run(client.act(page, context, ask_options)).latency_ms, 2500);
  EXPECT_EQ(json::serialize(seen["viewport"]), R"({"w":1280,"h":800,"dpr":2E0})");
  EXPECT_THAT(model->user_text(1), testing::Not(HasSubstr("viewport:")));
  EXPECT_TRUE(model->user_text(1).ends_with("# Task\nOpen it"));
  EXPECT_THAT(log.lines(), testing::ElementsAre(
                               "info: vision: transport error, retrying once: x", "warning: on_action hook raised: ",
                               "info: vision: action=click confidence=0.85 workflow=check\\nout phase=3 "
                               "model=light-model latency_ms=2500 tokens=1500/200 reason=" +
                                   reason.substr(1)));
  spdlog::get("vision")->sinks().push_back(std::make_shared<BrokenSink>());
  context["viewport"] = "mine";
  EXPECT_EQ(loop.run(client.act(page, context)).action, "click");
  EXPECT_EQ(seen["viewport"], "mine");
}

}  // namespace
}  // namespace vision
