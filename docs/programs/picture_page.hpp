#pragma once

#include <boost/asio/awaitable.hpp>

#include "vision/page/browser_page.hpp"

// [page]
/// A page on another driver, with everything that vision needs of it.
class PicturePage : public vision::BrowserPage, private vision::Mouse, private vision::Keyboard {
 public:
  boost::asio::awaitable<vision::Bytes> screenshot(vision::ScreenshotOptions) override {
    co_return vision::Bytes(std::string("\x89PNG, and so on"));
  }
  boost::asio::awaitable<boost::json::value> evaluate(std::string) override { co_return 1.0; }
  std::optional<boost::json::object> viewport_size() override {
    return boost::json::object{{"width", 1280}, {"height", 800}};
  }
  vision::Mouse& mouse() override { return *this; }
  vision::Keyboard& keyboard() override { return *this; }

 private:
  boost::asio::awaitable<void> click(double, double) override { co_return; }
  boost::asio::awaitable<void> wheel(double, double) override { co_return; }
  boost::asio::awaitable<void> type(std::string, std::chrono::milliseconds) override { co_return; }
  boost::asio::awaitable<void> press(std::string) override { co_return; }
};
// [page]
