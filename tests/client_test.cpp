#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include "tests/support/environment.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_key.hpp"
#include "vision/client/metrics.hpp"
#include "vision/client/prompt.hpp"
#include "vision/client/response.hpp"
#include "vision/client/system_prompt.hpp"
#include "vision/records/errors.hpp"
#include "vision/text/utf8.hpp"

namespace vision {
namespace {

const ImgMeta meta(1280, 800, 2.0, 0.0);

FlowContext context(const char* json) {
  return boost::json::parse(json).as_object();
}

class Client : public testing::Test {
 protected:
  void SetUp() override { test::TestRegistry::instance(); }
};

TEST_F(Client, PicksTheModel) {
  const std::pair<const char*, bool> rows[] = {
      {R"({})", false},
      {R"({"phase": 0})", true},
      {R"({"phase": 0.0})", true},
      {R"({"phase": false})", true},
      {R"({"phase": "0"})", false},
      {R"({"phase": null})", false},
      {R"({"phase": 1})", false},
      {R"({"workflow_name": "phase0_login_verify"})", true},
      {R"({"workflow_name": "captcha_detect"})", true},
      {R"({"workflow_name": "Captcha_detect"})", false},
      {R"({"attempts": 1})", false},
      {R"({"attempts": 2})", true},
      {R"({"attempts": 2.9})", true},
      {R"({"attempts": 1.9})", false},
      {R"({"attempts": " 2 "})", true},
      {R"({"attempts": true})", false},
      {R"({"attempts": ""})", false},
      {R"({"attempts": []})", false},
      {R"({"attempts": {}})", false},
      {R"({"attempts": null})", false},
      {R"({"attempts": -7})", false},
      {R"({"attempts": 18446744073709551615})", true},
  };
  for (const auto& [json, heavy] : rows) {
    EXPECT_EQ(_pick_model(context(json), false, "default"), heavy ? "heavy-model" : "default") << json;
  }
  EXPECT_EQ(_pick_model({}, true, "default"), "heavy-model");
  for (const char* json : {R"({"attempts": "x"})", R"({"attempts": "2.5"})", R"({"attempts": [2]})",
                           R"({"attempts": " "})", R"({"attempts": 1e999})"}) {
    EXPECT_THROW(_pick_model(context(json), false, "d"), ConversionError) << json;
  }
}

TEST_F(Client, UserMessage) {
  EXPECT_EQ(_build_user_message({}, std::nullopt, ImgMeta(1280, 800, 1.25, 0)),
            "# Workflow context\n\n# Viewport\n1280×800 CSS pixels (DPR 1.2)\n\n# Task\n"
            "Advance the workflow workflow. Current step: unknown. Goal: see workflow_name above.");
  const auto all = context(R"({"success_signals": ["ü", {"a": 1.0}], "attempts": 0, "phase": false, "viewport": 1,
                               "workflow_name": "check\nout", "platform": 2.0, "context_hint": "", "forbidden_actions": [],
                               "last_action": {}, "current_step": null, "expected_outcome": "paid"})");
  EXPECT_EQ(_build_user_message(all, "", meta),
            "# Workflow context\nworkflow_name: check\nout\nphase: False\nexpected_outcome: paid\nattempts: "
            "0\nplatform: 2.0\n"
            "success_signals: [\"\\u00fc\", {\"a\": 1.0}]\n\n# Viewport\n1280×800 CSS pixels (DPR 2.0)\n\n# Task\n"
            "Advance the check\nout workflow. Current step: None. Goal: paid.");
  EXPECT_TRUE(_build_user_message(all, "Do\nthis", meta).ends_with("# Task\nDo\nthis"));
}

TEST_F(Client, RequestBody) {
  const auto prefix = std::make_shared<const std::string>(request_prefix("m\"1"));
  const MessagesRequest request("m\"1", prefix, Bytes(std::string("\x00\xffPNG", 5)), "say \"hi\"\n—\xFF");
  const auto body = boost::json::parse(request.body()).as_object();
  std::string members;
  for (const auto& [key, ignored] : body) members += std::string(key) + " ";
  EXPECT_EQ(members, "model max_tokens thinking system tools tool_choice messages ");
  EXPECT_EQ(body.at("model"), "m\"1");
  EXPECT_EQ(body.at("max_tokens"), 512);
  EXPECT_EQ(body.at("thinking"), boost::json::parse(R"({"type": "disabled"})"));
  EXPECT_EQ(body.at("tool_choice"), boost::json::parse(R"({"type": "tool", "name": "propose_action"})"));
  EXPECT_EQ(body.at("messages"), boost::json::parse(R"([{"role": "user", "content": [
      {"type": "image", "source": {"type": "base64", "media_type": "image/png", "data": "AP9QTkc="}},
      {"type": "text", "text": "say \"hi\"\n\u2014\ufffd"}]}])"));
  EXPECT_EQ(body.at("tools").as_array().size(), 1u);
  EXPECT_NE(request.body().find(R"("x_ratio": {"type": "number", "minimum": 0.0, "maximum": 1.0})"), std::string::npos);
  EXPECT_NE(request.body().find(R"("duration_ms": {"type": "integer", "minimum": 0})"), std::string::npos);
  EXPECT_NE(request.body().find(R"("required": ["action", "reason", "confidence", "next_expected_state"])"),
            std::string::npos);
}

TEST_F(Client, SystemPromptIsComplete) {
  std::string_view rest = detail::SYSTEM_PROMPT;
  std::size_t code_points = 0;
  for (; !rest.empty(); ++code_points) rest.remove_prefix(text::next_code_point(rest).size);
  EXPECT_EQ(code_points, 1230u);
  EXPECT_EQ(std::count(detail::SYSTEM_PROMPT.begin(), detail::SYSTEM_PROMPT.end(), '\n'), 10);
}

ActionResult parsed(const std::string& response, std::optional<ImgMeta> img_meta = meta) {
  return _parse_response(boost::json::parse(response), "m", 12.5, img_meta);
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
  EXPECT_EQ(parsed(test::proposal("click", 1, R"(, "x_ratio": 1238)"), std::nullopt).x_ratio, 1.0);
  EXPECT_FALSE(parsed(test::proposal("clik", 0.6)).low_confidence);
  EXPECT_TRUE(parsed(test::proposal("declare_success", 0.59)).low_confidence);
  EXPECT_EQ(parsed(test::proposal("clik", 1)).action, "clik");
}

TEST_F(Client, ParsesAnswersWithoutAUsableCall) {
  for (const char* response :
       {R"({"usage": {"input_tokens": 3, "output_tokens": 4}, "content": []})",
        R"({"usage": {"input_tokens": 3, "output_tokens": 4}, "content": null})",
        R"({"usage": {"input_tokens": 3, "output_tokens": 4}, "content": [1, "x", {"type": "tool_use"}]})"}) {
    EXPECT_EQ(parsed(response), _failure_result("model did not return propose_action tool call", "m", 12.5, 3, 4))
        << response;
  }
  const ActionResult empty = parsed(test::tool_call("null"));
  EXPECT_EQ(empty.action + empty.reason, "declare_failure");
  EXPECT_TRUE(empty.low_confidence);
  EXPECT_EQ(parsed(R"({"content": [{"type": "tool_use", "name": "propose_action", "input": {}}]})").input_tokens, 0);
  for (const char* response :
       {"{}", "[]", R"({"content": 5})", R"({"content": [{"type": "tool_use", "name": "propose_action"}]})"}) {
    EXPECT_THROW(parsed(response), InvalidResponse) << response;
  }
  for (const char* confidence : {"null", "[]", R"("high")", "{}"}) {
    EXPECT_THROW(parsed(test::tool_call(std::string(R"({"confidence": )") + confidence + "}")), ConversionError)
        << confidence;
  }
}

ActionResult call_of(std::string model, std::int64_t in, std::int64_t out, double latency_ms = 0) {
  ActionResult result("click", "", 1, "");
  result.model_used = std::move(model);
  result.input_tokens = in;
  result.output_tokens = out;
  result.latency_ms = latency_ms;
  return result;
}

TEST_F(Client, MetricsLatenciesAndCost) {
  VisionMetrics metrics;
  EXPECT_EQ(metrics.p95(), 0.0);
  EXPECT_EQ(metrics.estimated_cost_usd(), 0.0);
  metrics.latencies_ms = {30.0, 10.0};
  EXPECT_EQ(metrics.p95(), 10.0);
  metrics.latencies_ms.clear();
  for (int i = 20; i >= 1; --i) metrics.latencies_ms.push_back(i);
  EXPECT_EQ(metrics.p95(), 19.0);
  EXPECT_EQ(metrics.latencies_ms.front(), 20.0);
  metrics.reset();
  for (int i = 0; i < 2; ++i) metrics.record(call_of("light-model", 1500, 200));
  EXPECT_DOUBLE_EQ(metrics.estimated_cost_usd(), 0.015);
  metrics.reset();
  for (const char* model : {"light-model", "light-model", "heavy-model", "light-model"})
    metrics.record(call_of(model, 2000, 250));
  EXPECT_DOUBLE_EQ(metrics.estimated_cost_usd(), 0.0455);
  metrics.reset();
  metrics.record(call_of("unknown", 1000000, 1000000));
  EXPECT_DOUBLE_EQ(metrics.estimated_cost_usd(), 30.0);
  metrics.record(call_of("", INT64_MAX, INT64_MIN));
  EXPECT_EQ(metrics.total_input_tokens, INT64_MAX);
  EXPECT_EQ(metrics.by_model.size(), 1u);
}

TEST_F(Client, MetricsFailureReasons) {
  VisionMetrics metrics;
  for (const char* tail : {"one", "two"}) {
    metrics.record(_failure_result(std::string(79, 'r') + "—" + tail, "m", 1.0));
  }
  metrics.record(_failure_result("", "m", 1.0));
  EXPECT_EQ(metrics.failures_by_reason[std::string(79, 'r') + "—"], 2);
  EXPECT_EQ(metrics.failures_by_reason[""], 1);
  EXPECT_EQ(metrics.failures_by_reason["never seen"], 0);
  EXPECT_EQ(metrics.failures_by_reason.size(), 2u);
  const auto& held = metrics.latencies_ms;
  metrics.reset();
  EXPECT_TRUE(held.empty() && metrics.failures_by_reason.empty() && metrics.by_model.empty());
  EXPECT_EQ(metrics.failures_by_reason[""], 0);
}

TEST_F(Client, ApiKeyResolution) {
  auto& resolver = test::TestRegistry::instance().resolver;
  {
    const test::ScopedEnv env("ANTHROPIC_API_KEY", "from-env");
    EXPECT_EQ(detail::resolve_api_key("given"), "given");
    EXPECT_EQ(detail::resolve_api_key(""), "from-env");
    resolver = [] { return std::string("from-registry"); };
    EXPECT_EQ(detail::resolve_api_key(""), "from-registry");
    resolver = [] { return std::string(); };
    EXPECT_EQ(detail::resolve_api_key(""), "from-env");
    resolver = []() -> std::string { throw 42; };
    EXPECT_EQ(detail::resolve_api_key(""), "from-env");
  }
  const test::ScopedEnv env("ANTHROPIC_API_KEY", std::nullopt);
  try {
    detail::resolve_api_key("");
    FAIL() << "a key from nowhere";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "VisionClient: no API key. Pass api_key= or set ANTHROPIC_API_KEY.");
  }
  resolver = nullptr;
}

}  // namespace
}  // namespace vision
