#pragma once

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <deque>

#include "tests/support/virtual_time.hpp"
#include "vision/vision.hpp"

namespace vision::test {

/// The registry of every test program. Its key resolver can be replaced.
class TestRegistry : public StaticModelRegistry {
 public:
  TestRegistry() : StaticModelRegistry("light-model", "heavy-model") {}
  std::function<std::string()> core_attr(std::string_view name) const override {
    return name == "resolve_api_key" ? resolver : nullptr;
  }
  std::function<std::string()> resolver;

  static TestRegistry& instance() {
    static const auto made = std::make_shared<TestRegistry>();
    [[maybe_unused]] static const bool is_set = (set_model_registry(made), true);
    return *made;
  }
};

/// The error type of page drivers, agents and other host code.
struct HostError : std::runtime_error, CuaOriginMark {
  using std::runtime_error::runtime_error;
};

/// A response with one propose_action call whose input is the JSON text `input`.
inline std::string tool_call(const std::string& input) {
  return R"({"usage": {"input_tokens": 1500, "output_tokens": 200}, "content": [{"type": "tool_use", )"
         R"("name": "propose_action", "input": )" +
         input + "}]}";
}

inline std::string proposal(const std::string& action, double confidence, const std::string& more = "") {
  return tool_call(R"({"action": ")" + action + R"(", "reason": "because", "confidence": )" +
                   std::to_string(confidence) + R"(, "next_expected_state": "next")" + more + "}");
}

/// Answers each request with the next scripted step: waits `seconds`, then returns
/// the JSON text or throws the error.
class ScriptedModel : public MessagesClient {
 public:
  struct Step {
    std::string response;
    std::exception_ptr error;
    double seconds = 0.5;
  };

  ScriptedModel& answer(std::string response, double seconds = 0.5) {
    steps.push_back({std::move(response), nullptr, seconds});
    return *this;
  }
  template <class E>
  ScriptedModel& fail(E error, double seconds = 0.5) {
    steps.push_back({"", std::make_exception_ptr(std::move(error)), seconds});
    return *this;
  }

  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override {
    bodies.push_back(request.body());
    if (steps.empty()) throw std::logic_error("no scripted answer left");
    const Step step = steps.front();
    steps.pop_front();
    co_await runtime::sleep_for(runtime::to_duration(step.seconds));
    if (step.error) std::rethrow_exception(step.error);
    co_return boost::json::parse(step.response);
  }

  /// The user text of request `i`.
  std::string user_text(std::size_t i) const {
    const auto body = boost::json::parse(bodies.at(i));
    return std::string(body.at("messages").at(0).at("content").at(1).at("text").as_string());
  }

  std::deque<Step> steps;
  std::vector<std::string> bodies;
};

/// A page whose operations succeed at once, unless `before` delays them or fails.
class ScriptedPage : public BrowserPage, private Mouse, private Keyboard {
 public:
  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override {
    return with_value(visit("screenshot"), Bytes(std::string("PNG")));
  }
  asio::awaitable<boost::json::value> evaluate(std::string expression) override {
    return with_value(visit("evaluate " + expression), device_pixel_ratio);
  }
  std::optional<boost::json::object> viewport_size() override { return on_call("viewport_size"), viewport; }
  Mouse& mouse() override { return on_call("mouse"), *this; }
  Keyboard& keyboard() override { return on_call("keyboard"), *this; }

  boost::json::value device_pixel_ratio = 2.0;
  std::optional<boost::json::object> viewport = boost::json::object{{"width", 1280}, {"height", 800}};
  std::vector<std::string> actions;  ///< what reached mouse and keyboard, "VERB DETAILS"
  /// Runs in place of every operation. Called with "screenshot", "evaluate EXPRESSION" or an action.
  std::function<asio::awaitable<void>(std::string)> before;
  /// Runs in every call that returns at once, with its name.
  std::function<void(const char*)> on_call = [](const char*) {};

 private:
  asio::awaitable<void> click(double x, double y) override { return act("click", boost::json::array{x, y}); }
  asio::awaitable<void> wheel(double x, double y) override { return act("scroll", boost::json::array{x, y}); }
  asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override {
    return act("type", boost::json::array{text, delay.count()});
  }
  asio::awaitable<void> press(std::string key) override { return act("key", boost::json::array{key}); }

  asio::awaitable<void> act(const std::string& verb, const boost::json::array& details) {
    return visit(actions.emplace_back(verb + " " + boost::json::serialize(details)));
  }
  asio::awaitable<void> visit(std::string operation) { return before ? before(std::move(operation)) : nothing(); }
  static asio::awaitable<void> nothing() { co_return; }
};

}  // namespace vision::test
