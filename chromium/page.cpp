#include "chromium/page.hpp"

#include <utility>

#include "chromium/events/fonts.hpp"
#include "chromium/events/navigation.hpp"
#include "chromium/events/popups.hpp"
#include "chromium/input/keyboard.hpp"
#include "chromium/input/mouse.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;

ChromiumPage::ChromiumPage(std::shared_ptr<Session> browser, std::shared_ptr<Session> session, std::string target_id,
                           Owner owner)
    : browser_session_(std::move(browser)),
      session_(std::move(session)),
      target_id_(std::move(target_id)),
      owner_(owner),
      fonts_(std::make_unique<FontWait>()),
      mouse_(std::make_unique<PageMouse>(session_)),
      keyboard_(std::make_unique<PageKeyboard>(session_)) {
  session_->set_event_handler(
      [this](std::string_view method, const json::object& params) { handle_event(method, params); });
}

ChromiumPage::~ChromiumPage() {
  session_->set_event_handler(nullptr);  // it refers to this object
  if (session_->ended()) return;
  if (owner_ == Owner::us) {
    browser_session_->send_and_forget("Target.closeTarget", make_object("targetId", target_id_));
  } else {
    browser_session_->send_and_forget("Target.detachFromTarget", make_object("sessionId", session_->id()));
  }
}

// Page.enable comes first: a dialog that opens before it is never reported. Nor does the
// page reply while one is open, so a time-out here means that it opened before.
asio::awaitable<void> ChromiumPage::enable_events() {
  session_->set_obstacle("a dialog may be open that the page's owner has not answered");
  co_await session_->command("Page.enable");
  session_->set_obstacle({});
  co_await session_->command("Inspector.enable");
  co_await session_->command("Page.setLifecycleEventsEnabled", make_object("enabled", true));
}

asio::awaitable<void> ChromiumPage::set_up(PageOptions options) {
  co_await enable_events();
  viewport_ = make_object("width", options.width(), "height", options.height());
  co_await session_->command(
      "Emulation.setDeviceMetricsOverride",
      make_object("width", options.width(), "height", options.height(), "screenWidth", options.width(), "screenHeight",
                  options.height(), "deviceScaleFactor", options.device_pixel_ratio(), "mobile", false));
  co_await session_->command("Emulation.setFocusEmulationEnabled", make_object("enabled", true));
}

// A page that is navigating, or has a dialog open, does not reply; then the last size
// stays. Attaching and screenshots must work on such a page, so they do not wait long.
asio::awaitable<void> ChromiumPage::measure(runtime::Duration limit, bool wait_for_fonts) {
  const std::string size_of_page = "{width: innerWidth, height: innerHeight}";
  const std::string script = wait_for_fonts ? fonts_->before(size_of_page) : "(" + size_of_page + ")";
  auto asked = session_->command("Runtime.evaluate", evaluation(script), limit);
  auto outcome = co_await runtime::try_await(std::move(asked));
  if (!outcome.has_value() || outcome.value().contains("exceptionDetails")) co_return;
  json::value size = evaluated_value(outcome.value());
  if (wait_for_fonts) size = fonts_->value_in(std::move(size));
  const bool is_size = size.is_object() && size.get_object().contains("width");
  if (is_size && owner_ == Owner::someone_else) viewport_ = size.get_object();
}

void ChromiumPage::handle_event(std::string_view method, const json::object& params) {
  if (method == "Page.frameNavigated" && !object_of(params, "frame").contains("parentId")) mouse_->document_changed();
  if (method == "Page.javascriptDialogOpening") {
    if (owner_ == Owner::us) return answer_dialog(*session_, params);
    constexpr std::size_t max_message = 100;
    session_->set_obstacle("a dialog is open (" + text::one_line(text_of(params, "type")) + " \"" +
                           text::one_line(text::first_code_points(text_of(params, "message"), max_message)) +
                           "\") that the page's owner has not answered");
  } else if (method == "Page.javascriptDialogClosed") {
    session_->set_obstacle({});
  } else if (load_waiter_) {
    load_waiter_->handle_event(method, params);
  }
}

asio::awaitable<json::object> ChromiumPage::full_page_clip() {
  const json::object metrics = co_await session_->command("Page.getLayoutMetrics");
  const json::object& size = object_of(metrics, "cssContentSize");
  if (!size.contains("width") || !size.contains("height"))
    throw BrowserError("the browser did not report the size of the page");
  co_return make_object("x", 0, "y", 0, "width", size.at("width"), "height", size.at("height"), "scale", 1);
}

asio::awaitable<Bytes> ChromiumPage::screenshot(ScreenshotOptions options) {
  co_await session_->command("Page.bringToFront");
  co_await measure(std::chrono::seconds(5), true);
  json::object params = make_object("format", "png", "optimizeForSpeed", optimize_for_speed_);
  if (options.full_page()) {
    params["clip"] = co_await full_page_clip();
    params["captureBeyondViewport"] = true;
  }
  Bytes picture = co_await session_->command_for_picture("Page.captureScreenshot", params);
  constexpr std::size_t max_size = 5'000'000 / 4 * 3;  // some endpoints take no more than 5 MB of base64
  if (!optimize_for_speed_ || picture.size() <= max_size) co_return picture;
  params["optimizeForSpeed"] = false;
  co_return co_await session_->command_for_picture("Page.captureScreenshot", params);
}

asio::awaitable<json::value> ChromiumPage::evaluate(std::string expression) {
  co_return evaluated_value(co_await session_->command("Runtime.evaluate", evaluation(expression)));
}

asio::awaitable<void> ChromiumPage::navigate(std::string url) {
  LoadWaiter load(session_);
  struct Registration {  // ends however this coroutine does
    LoadWaiter*& current;
    LoadWaiter* mine;
    Registration(LoadWaiter*& c, LoadWaiter* m) : current(c), mine(m) { current = m; }
    ~Registration() {
      if (current == mine) current = nullptr;  // a later navigate() may have replaced it
    }
  } registration(load_waiter_, &load);
  const json::object reply = co_await session_->command("Page.navigate", make_object("url", url));
  if (const auto error = text_of(reply, "errorText"); !error.empty()) {
    throw NavigationError("cannot load " + text::one_line(url) + ": " + std::string(error));
  }
  if (!reply.contains("loaderId")) co_return;  // moved within the same document: no load event comes
  co_await load.wait(session_->command_timeout(), "load of " + text::one_line(url));
}

// The browser replies before the page has gone, hence the wait for the session's end,
// which arrives as the waiter's error. That end is what was asked for, whatever else
// failed meanwhile.
asio::awaitable<void> ChromiumPage::close() {
  if (session_->ended()) co_return;
  Waiter end(session_);
  auto asked = browser_session_->command("Target.closeTarget", make_object("targetId", target_id_));
  const auto outcome = co_await runtime::try_await(std::move(asked));
  if (!session_->ended() && outcome.error()) std::rethrow_exception(outcome.error());
  const auto waited = co_await runtime::try_await(end.wait(session_->command_timeout(), "page.close"));
  if (!session_->ended() && waited.error()) std::rethrow_exception(waited.error());
}

std::optional<json::object> ChromiumPage::viewport_size() {
  return viewport_;
}

Mouse& ChromiumPage::mouse() {
  return *mouse_;
}

Keyboard& ChromiumPage::keyboard() {
  return *keyboard_;
}

}  // namespace vision::chromium
