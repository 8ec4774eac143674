#pragma once

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <deque>

#include "tests/support/virtual_time.hpp"
#include "vision/vision.hpp"

namespace vision::test {

/// The registry of every test program: its key resolver can be replaced.
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

/// The error type of the page driver, the agent and other code of the host.
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

/// Answers each request with the next scripted step: takes `seconds`, then gives
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

/// A page whose operations are written down as text, and fail or hang on demand.
class ScriptedPage : public BrowserPage, private Mouse, private Keyboard {
 public:
  asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override {
    co_await perform(options.full_page() ? "screenshot full" : "screenshot", false);
    co_return Bytes(std::string("PNG bytes"));
  }
  asio::awaitable<boost::json::value> evaluate(std::string expression) override {
    co_await perform("evaluate " + expression, false);
    co_return device_pixel_ratio;
  }
  std::optional<boost::json::object> viewport_size() override { return viewport; }
  Mouse& mouse() override { return *this; }
  Keyboard& keyboard() override { return *this; }

  boost::json::value device_pixel_ratio = 2.0;
  std::optional<boost::json::object> viewport = boost::json::object{{"width", 1280}, {"height", 800}};
  std::vector<std::string> actions;                          ///< what reached mouse and keyboard
  std::function<asio::awaitable<void>(std::string)> before;  ///< runs first in every operation

 private:
  asio::awaitable<void> click(double x, double y) override { return act("click", x, y); }
  asio::awaitable<void> wheel(double x, double y) override { return act("wheel", x, y); }
  asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override {
    co_await perform("type " + text + " " + std::to_string(delay.count()), true);
  }
  asio::awaitable<void> press(std::string key) override { co_await perform("press " + key, true); }

  asio::awaitable<void> act(std::string name, double x, double y) {
    const boost::json::array point = {x, y};
    co_await perform(name + " " + boost::json::serialize(point), true);
  }

  asio::awaitable<void> perform(std::string operation, bool is_action) {
    if (before) co_await before(operation);
    if (is_action) actions.push_back(operation);
  }
};

}  // namespace vision::test
