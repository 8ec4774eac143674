#pragma once

#include <memory>

#include "chromium/protocol/session.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::chromium {

/// The mouse of a page, which starts in the top-left corner.
class PageMouse : public Mouse {
 public:
  explicit PageMouse(std::shared_ptr<Session> session);
  boost::asio::awaitable<void> click(double x, double y) override;
  boost::asio::awaitable<void> wheel(double delta_x, double delta_y) override;
  /// Tells that the page shows another document, so that a click which has not pressed
  /// yet fails.
  void document_changed() noexcept { document_changed_ = true; }

 private:
  class HeldButton;
  boost::asio::awaitable<void> check_target();

  const std::shared_ptr<Session> session_;
  bool document_changed_ = false;
  double x_ = 0;  // where the last click was, and where the wheel turns
  double y_ = 0;
};

}  // namespace vision::chromium
