#pragma once

#include <memory>

#include "chromium/protocol/session.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::chromium {

class PageMouse : public Mouse {
 public:
  explicit PageMouse(std::shared_ptr<Session> session);
  boost::asio::awaitable<void> click(double x, double y) override;
  boost::asio::awaitable<void> wheel(double delta_x, double delta_y) override;

 private:
  class Button;
  const std::shared_ptr<Session> session_;
  double x_ = 0;
  double y_ = 0;
};

}  // namespace vision::chromium
