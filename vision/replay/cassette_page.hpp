#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "vision/page/browser_page.hpp"
#include "vision/replay/cassette.hpp"

namespace vision {

/// A page that answers from a cassette, or passes everything on to another page and
/// records it: screenshots, expressions, the viewport's size, mouse and keyboard.
///
/// The calls of a replay must be the recorded ones in the recorded order, with the same
/// arguments; anything else throws CassetteMiss. Latencies and errors are replayed as
/// CassetteClient does.
class CassettePage : public BrowserPage, private Mouse, private Keyboard {
 public:
  /// Replays only. Throws std::invalid_argument when `cassette` is null or records.
  explicit CassettePage(std::shared_ptr<Cassette> cassette);
  /// Records `page`, which must outlive this object, or replays without touching it, as
  /// the cassette's mode says. Throws std::invalid_argument when `cassette` is null, or its
  /// mode `new_episodes`: a page cannot be continued in the middle.
  CassettePage(std::shared_ptr<Cassette> cassette, BrowserPage& page);

  boost::asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override;
  boost::asio::awaitable<boost::json::value> evaluate(std::string expression) override;
  std::optional<boost::json::object> viewport_size() override;
  Mouse& mouse() override { return *this; }
  Keyboard& keyboard() override { return *this; }

 private:
  boost::asio::awaitable<void> click(double x, double y) override;
  boost::asio::awaitable<void> wheel(double delta_x, double delta_y) override;
  boost::asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override;
  boost::asio::awaitable<void> press(std::string key) override;

  const std::shared_ptr<Cassette> cassette_;
  BrowserPage* const page_;
};

}  // namespace vision
