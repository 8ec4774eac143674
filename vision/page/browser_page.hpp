#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "vision/records/bytes.hpp"

namespace vision {

/// The pointer of a page. Coordinates and deltas are CSS pixels from the
/// viewport's top-left corner; fractions are allowed.
class Mouse {
 public:
  virtual ~Mouse() = default;
  /// Moves there, presses and releases the primary button. Completes when the
  /// page has handled it.
  virtual boost::asio::awaitable<void> click(double x, double y) = 0;
  /// One wheel event at the current mouse position; a positive `delta_y` scrolls
  /// down. Does not wait for the scroll to end.
  virtual boost::asio::awaitable<void> wheel(double delta_x, double delta_y) = 0;
};

/// The keyboard of a page; what it sends goes to the focused element.
class Keyboard {
 public:
  virtual ~Keyboard() = default;
  /// Types `text` (UTF-8) character by character with `delay` between strokes.
  virtual boost::asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) = 0;
  /// Presses and releases one key or chord, "Enter" or "Control+Shift+T".
  virtual boost::asio::awaitable<void> press(std::string key) = 0;
};

/// Parameters of BrowserPage::screenshot.
class ScreenshotOptions {
 public:
  ScreenshotOptions() {}
  /// The whole page instead of the viewport. Default false.
  ScreenshotOptions& full_page(bool value) & {
    full_page_ = value;
    return *this;
  }
  ///@{
  /// The setters on a temporary, which they return by value.
  ScreenshotOptions full_page(bool value) && { return std::move(full_page(value)); }
  ///@}

  ///@{
  /// The value that was set, or its default.
  bool full_page() const noexcept { return full_page_; }
  ///@}

 private:
  bool full_page_ = false;
};

/// The browser page that vision looks at and acts on. The host implements it on
/// its own driver, or uses vision::chromium.
///
/// Every operation may fail with an exception of the driver's own, preferably derived
/// from std::exception, and must end soon (with operation_aborted) when its coroutine
/// receives terminal cancellation: time limits rely on that. Each mode makes one call
/// at a time; two modes may overlap.
class BrowserPage {
 public:
  virtual ~BrowserPage() = default;
  /// The viewport (or full page) as PNG bytes.
  virtual boost::asio::awaitable<Bytes> screenshot(ScreenshotOptions options) = 0;
  /// The value of a JavaScript expression in the page's main frame. A promise is
  /// awaited; undefined and values without a JSON form become null.
  virtual boost::asio::awaitable<boost::json::value> evaluate(std::string expression) = 0;
  /// A map with "width" and "height" in CSS pixels, or std::nullopt when the page has
  /// no fixed viewport. A remembered value, not a measurement.
  virtual std::optional<boost::json::object> viewport_size() = 0;
  ///@{
  /// The page's input devices, valid as long as the page. Scripted steps may use them too.
  virtual Mouse& mouse() = 0;
  virtual Keyboard& keyboard() = 0;
  ///@}
};

}  // namespace vision
