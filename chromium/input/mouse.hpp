#pragma once

#include <memory>

#include "chromium/input/document_guard.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::chromium {

/// The mouse of a page, which starts in the top-left corner.
class PageMouse : public Mouse {
 public:
  /// `guard` must outlive the mouse.
  PageMouse(std::shared_ptr<Session> session, DocumentGuard& guard);
  boost::asio::awaitable<void> click(double x, double y) override;
  boost::asio::awaitable<void> wheel(double delta_x, double delta_y) override;

 private:
  class HeldButton;
  boost::asio::awaitable<void> check_target();

  const std::shared_ptr<Session> session_;
  DocumentGuard& guard_;
  double x_ = 0;  // where the last click was, and where the wheel turns
  double y_ = 0;
};

}  // namespace vision::chromium
