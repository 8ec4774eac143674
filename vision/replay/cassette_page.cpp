#include "vision/replay/cassette_page.hpp"

#include <boost/json/array.hpp>
#include <stdexcept>

#include "vision/replay/internal/tape.hpp"

namespace vision {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

asio::awaitable<json::value> shoot(BrowserPage& page, ScreenshotOptions options, detail::Tape& tape, Bytes& picture) {
  picture = co_await page.screenshot(options);
  co_return json::value(tape.store(picture));
}

asio::awaitable<json::value> without_value(asio::awaitable<void> operation) {
  co_await std::move(operation);
  co_return json::value();
}

asio::awaitable<void> act(detail::Tape& tape, std::string verb, json::array arguments,
                          std::function<asio::awaitable<void>()> action) {
  const auto operation = [action = std::move(action)] { return without_value(action()); };
  co_await tape.in_order(std::move(verb), std::move(arguments), operation);
}

}  // namespace

CassettePage::CassettePage(std::shared_ptr<Cassette> cassette) : cassette_(std::move(cassette)), page_(nullptr) {
  if (!cassette_) throw std::invalid_argument("CassettePage: the cassette is null");
  if (cassette_->is_recording()) {
    throw std::invalid_argument("CassettePage: there is no page to record for " + cassette_->_tape().folder());
  }
}

CassettePage::CassettePage(std::shared_ptr<Cassette> cassette, BrowserPage& page)
    : cassette_(std::move(cassette)), page_(&page) {
  if (!cassette_) throw std::invalid_argument("CassettePage: the cassette is null");
  if (cassette_->_tape().mode() == CassetteMode::new_episodes) {
    throw std::invalid_argument("CassettePage: a recorded page cannot be continued: new_episodes is for requests only");
  }
}

asio::awaitable<Bytes> CassettePage::screenshot(ScreenshotOptions options) {
  detail::Tape& tape = cassette_->_tape();
  Bytes picture;
  const auto operation = [this, options, &tape, &picture] { return shoot(*page_, options, tape, picture); };
  json::array arguments{options.full_page()};
  const json::value name = co_await tape.in_order("screenshot", std::move(arguments), operation);
  if (cassette_->is_replaying()) picture = tape.load(name.as_string());
  co_return picture;
}

asio::awaitable<json::value> CassettePage::evaluate(std::string expression) {
  const auto operation = [this, expression] { return page_->evaluate(expression); };
  return cassette_->_tape().in_order("evaluate", json::array{expression}, operation);
}

std::optional<json::object> CassettePage::viewport_size() {
  const auto operation = [this]() -> json::value {
    const auto size = page_->viewport_size();
    return size ? json::value(*size) : json::value();
  };
  const json::value size = cassette_->_tape().in_order_now("viewport_size", operation);
  if (size.is_null()) return std::nullopt;
  return size.as_object();
}

asio::awaitable<void> CassettePage::click(double x, double y) {
  return act(cassette_->_tape(), "click", json::array{x, y}, [this, x, y] { return page_->mouse().click(x, y); });
}

asio::awaitable<void> CassettePage::wheel(double delta_x, double delta_y) {
  return act(cassette_->_tape(), "wheel", json::array{delta_x, delta_y},
             [this, delta_x, delta_y] { return page_->mouse().wheel(delta_x, delta_y); });
}

asio::awaitable<void> CassettePage::type(std::string text, std::chrono::milliseconds delay) {
  return act(cassette_->_tape(), "type", json::array{text, delay.count()},
             [this, text, delay] { return page_->keyboard().type(text, delay); });
}

asio::awaitable<void> CassettePage::press(std::string key) {
  return act(cassette_->_tape(), "press", json::array{key}, [this, key] { return page_->keyboard().press(key); });
}

}  // namespace vision
