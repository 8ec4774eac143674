#include "chromium/input/mouse.hpp"

#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

#include "chromium/protocol/json_object.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

void require_finite(const char* operation, const char* name, double value) {
  if (std::isfinite(value)) return;
  throw std::invalid_argument(std::string("mouse.") + operation + ": " + name + " is " + std::to_string(value) +
                              ", not a finite number");
}

json::object button_event(const char* type, double x, double y, int buttons) {
  return make_object("type", type, "x", x, "y", y, "button", "left", "buttons", buttons, "clickCount", 1);
}

}  // namespace

// The mouse button during a click. If the click fails or is cancelled half-way, the
// button is released without waiting, so that the page does not see it held for good.
class PageMouse::HeldButton {
 public:
  HeldButton(std::shared_ptr<Session> session, double x, double y) : session_(std::move(session)), x_(x), y_(y) {}
  ~HeldButton() {
    if (down_) session_->send_and_forget("Input.dispatchMouseEvent", release());
  }
  HeldButton(const HeldButton&) = delete;
  HeldButton& operator=(const HeldButton&) = delete;

  json::object press() {
    down_ = true;
    return button_event("mousePressed", x_, y_, 1);
  }
  json::object release() {
    down_ = false;
    return button_event("mouseReleased", x_, y_, 0);
  }

 private:
  const std::shared_ptr<Session> session_;
  const double x_;
  const double y_;
  bool down_ = false;
};

PageMouse::PageMouse(std::shared_ptr<Session> session) : session_(std::move(session)) {}

asio::awaitable<void> PageMouse::click(double x, double y) {
  require_finite("click", "x", x);
  require_finite("click", "y", y);
  x_ = x;
  y_ = y;
  co_await session_->command("Input.dispatchMouseEvent", make_object("type", "mouseMoved", "x", x, "y", y));
  HeldButton button(session_, x, y);
  co_await session_->command("Input.dispatchMouseEvent", button.press());
  co_await session_->command("Input.dispatchMouseEvent", button.release());
}

asio::awaitable<void> PageMouse::wheel(double delta_x, double delta_y) {
  require_finite("wheel", "delta_x", delta_x);
  require_finite("wheel", "delta_y", delta_y);
  co_await session_->command("Input.dispatchMouseEvent",
                             make_object("type", "mouseWheel", "x", x_, "y", y_, "deltaX", delta_x, "deltaY", delta_y));
}

}  // namespace vision::chromium
