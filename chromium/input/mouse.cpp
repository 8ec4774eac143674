#include "chromium/input/mouse.hpp"

#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

#include "chromium/errors.hpp"
#include "chromium/input/bring_to_front.hpp"
#include "chromium/protocol/json_object.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

void require_finite(const char* operation, const char* name, double value) {
  if (std::isfinite(value)) return;
  throw std::invalid_argument(std::string("mouse.") + operation + ": " + name + " is " + std::to_string(value) +
                              ", not a finite number");
}

// `force` becomes PointerEvent.pressure; a mouse without a pressure sensor reports 0.5
// while a button is down.
json::object button_event(const char* type, double x, double y, bool down) {
  return make_object("type", type, "x", x, "y", y, "button", "left", "buttons", down ? 1 : 0, "clickCount", 1, "force",
                     down ? 0.5 : 0.0);
}

// Whether a list or picker is open that the browser draws itself. Input of the protocol
// goes to the page beneath it. Frames of other sites and closed shadow roots cannot be
// searched. A list with this appearance consists of the page's own elements.
constexpr const char* native_picker_is_open = R"((function isOpen(root) {
  for (const element of root.querySelectorAll('select:open, input:open')) {
    if (getComputedStyle(element, '::picker(select)').appearance !== 'base-select') return true;
  }
  for (const element of root.querySelectorAll('*')) {
    const inner = element.shadowRoot || element.contentDocument;
    if (inner && isOpen(inner)) return true;
  }
  return false;
})(document))";

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
    return button_event("mousePressed", x_, y_, true);
  }
  json::object release() {
    down_ = false;
    return button_event("mouseReleased", x_, y_, false);
  }

 private:
  const std::shared_ptr<Session> session_;
  const double x_;
  const double y_;
  bool down_ = false;
};

PageMouse::PageMouse(std::shared_ptr<Session> session, DocumentGuard& guard)
    : session_(std::move(session)), guard_(guard) {}

// The browser holds back an evaluation while a navigation is pending, and a new document
// then replies to it, after the event that tells the guard. A page that does not reply in
// time is clicked all the same.
asio::awaitable<void> PageMouse::check_target() {
  constexpr auto limit = std::chrono::seconds(1);
  auto asked = session_->command("Runtime.evaluate",
                                 make_object("expression", native_picker_is_open, "returnByValue", true), limit);
  auto outcome = co_await runtime::try_await(std::move(asked));
  if (!outcome.has_value()) co_return;
  const auto* open = object_of(outcome.value(), "result").if_contains("value");
  if (open && open->is_bool() && open->get_bool()) {
    throw BrowserError(
        "mouse.click: a native list or picker is open, which no click reaches; use the keyboard: type the entry and "
        "press Enter, or press Escape to close it");
  }
}

// The browser handles a move with the next frame. What a page does about it, such as to
// put another element under the mouse, shows one frame later: that is what the second
// move waits for. An evaluation could wait as well, but see check_target().
asio::awaitable<void> PageMouse::click(double x, double y) {
  require_finite("click", "x", x);
  require_finite("click", "y", y);
  guard_.begin_input("mouse.click", "clicked");
  const std::uint64_t document = guard_.document();
  bring_to_front(*session_);
  co_await check_target();
  x_ = x;
  y_ = y;
  for (int i = 0; i < 2; ++i) {
    co_await session_->command("Input.dispatchMouseEvent", make_object("type", "mouseMoved", "x", x, "y", y));
  }
  if (guard_.document() != document)
    throw BrowserError("mouse.click: the page has changed to another document; nothing was clicked");
  HeldButton button(session_, x, y);
  co_await session_->command("Input.dispatchMouseEvent", button.press());
  co_await session_->command("Input.dispatchMouseEvent", button.release());
}

asio::awaitable<void> PageMouse::wheel(double delta_x, double delta_y) {
  require_finite("wheel", "delta_x", delta_x);
  require_finite("wheel", "delta_y", delta_y);
  bring_to_front(*session_);
  co_await session_->command("Input.dispatchMouseEvent",
                             make_object("type", "mouseWheel", "x", x_, "y", y_, "deltaX", delta_x, "deltaY", delta_y));
}

}  // namespace vision::chromium
