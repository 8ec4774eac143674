#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <memory>
#include <vector>

#include "vision/testing/virtual_time.hpp"
#include "vision/vision.hpp"

/// A page and a model in memory, in virtual time: what is left of a mission is the
/// library's own work.
namespace vision::bench {

namespace asio = boost::asio;

/// An event loop in virtual time.
class MemoryWorld {
 public:
  MemoryWorld() : time(std::make_shared<test::VirtualTime>()) { runtime::install_time_source(io, time); }
  asio::io_context io;
  std::shared_ptr<test::VirtualTime> time;

  /// Runs until nothing is left to do. `peak` is called whenever all wait.
  template <class Peak>
  void run(Peak peak) {
    do {
      io.restart();
      io.poll();
      peak();
    } while (time->advance());
  }
};

class MemoryPage : public BrowserPage, private Mouse, private Keyboard {
 public:
  explicit MemoryPage(Bytes image) : image_(std::move(image)) {}
  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override { co_return image_; }
  asio::awaitable<boost::json::value> evaluate(std::string) override { co_return 1.0; }
  std::optional<boost::json::object> viewport_size() override {
    return boost::json::object{{"width", 1280}, {"height", 800}};
  }
  Mouse& mouse() override { return *this; }
  Keyboard& keyboard() override { return *this; }

 private:
  asio::awaitable<void> click(double, double) override { co_return; }
  asio::awaitable<void> wheel(double, double) override { co_return; }
  asio::awaitable<void> type(std::string, std::chrono::milliseconds) override { co_return; }
  asio::awaitable<void> press(std::string) override { co_return; }

  const Bytes image_;
};

/// Proposes a click elsewhere each time, after `thinks` of virtual time.
class MemoryModel : public MessagesClient {
 public:
  explicit MemoryModel(runtime::Duration thinks);
  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

 private:
  const runtime::Duration thinks_;
  std::vector<boost::json::value> answers_;
  int turn_ = 0;
};

/// One mission of `steps` steps, which ends at its step cap.
asio::awaitable<void> mission(BrowserPage& page, VisionClient& client, long steps);

}  // namespace vision::bench
