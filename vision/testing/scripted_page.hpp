#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/array.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vision/page/browser_page.hpp"
#include "vision/testing/virtual_time.hpp"

namespace vision::test {

/// Returns `value` once `operation` has succeeded.
template <class T>
asio::awaitable<T> with_value(asio::awaitable<void> operation, T value) {
  co_await std::move(operation);
  co_return value;
}

/// A page whose operations succeed at once, unless `before` delays them or fails. It
/// shows `image` whatever is done to it.
class ScriptedPage : public BrowserPage, private Mouse, private Keyboard {
 public:
  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override { return with_value(visit("screenshot"), image); }
  asio::awaitable<boost::json::value> evaluate(std::string expression) override {
    return with_value(visit("evaluate " + expression), device_pixel_ratio);
  }
  std::optional<boost::json::object> viewport_size() override { return on_call("viewport_size"), viewport; }
  Mouse& mouse() override { return on_call("mouse"), *this; }
  Keyboard& keyboard() override { return on_call("keyboard"), *this; }

  Bytes image = Bytes(std::string("PNG"));      ///< every screenshot
  boost::json::value device_pixel_ratio = 2.0;  ///< the value of every expression
  /// Its viewport in CSS pixels.
  std::optional<boost::json::object> viewport = boost::json::object{{"width", 1280}, {"height", 800}};
  /// What reached mouse and keyboard, as "VERB [ARGUMENTS]": "click [6.4E2,2E2]".
  std::vector<std::string> actions;
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
