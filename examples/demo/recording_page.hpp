#pragma once

#include <utility>

#include "vision/page/browser_page.hpp"

namespace demo {

/// Passes everything on to another page and keeps the last screenshot for the
/// report. `page` must outlive it.
class RecordingPage : public vision::BrowserPage {
 public:
  explicit RecordingPage(vision::BrowserPage& page) : page_(page) {}

  boost::asio::awaitable<vision::Bytes> screenshot(vision::ScreenshotOptions options) override {
    last_ = co_await page_.screenshot(options);
    co_return last_;
  }
  boost::asio::awaitable<boost::json::value> evaluate(std::string expression) override {
    return page_.evaluate(std::move(expression));
  }
  std::optional<boost::json::object> viewport_size() override { return page_.viewport_size(); }
  vision::Mouse& mouse() override { return page_.mouse(); }
  vision::Keyboard& keyboard() override { return page_.keyboard(); }

  /// The last screenshot, once: empty until there is another one.
  vision::Bytes take_screenshot() noexcept { return std::exchange(last_, vision::Bytes()); }

 private:
  vision::BrowserPage& page_;
  vision::Bytes last_;
};

}  // namespace demo
