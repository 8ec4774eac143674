#include "chromium/page.hpp"

#include <utility>

#include "chromium/events/navigation.hpp"
#include "chromium/events/popups.hpp"
#include "chromium/input/keyboard.hpp"
#include "chromium/input/mouse.hpp"
#include "chromium/protocol/fields.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;

ChromiumPage::ChromiumPage(std::shared_ptr<Session> browser, std::shared_ptr<Session> session, std::string target_id,
                           Owner owner)
    : browser_(std::move(browser)),
      session_(std::move(session)),
      target_id_(std::move(target_id)),
      owner_(owner),
      mouse_(std::make_unique<PageMouse>(session_)),
      keyboard_(std::make_unique<PageKeyboard>(session_)) {
  session_->on_event([this](std::string_view method, const json::object& params) { on_event(method, params); });
}

ChromiumPage::~ChromiumPage() {
  session_->on_event(nullptr);
  if (session_->ended()) return;
  if (owner_ == Owner::us) {
    browser_->post("Target.closeTarget", fields("targetId", target_id_));
  } else {
    browser_->post("Target.detachFromTarget", fields("sessionId", session_->id()));
  }
}

// Page.enable comes first: without it a dialog stops the page for good.
asio::awaitable<void> ChromiumPage::observe() {
  co_await session_->call("Page.enable");
  co_await session_->call("Inspector.enable");
  co_await session_->call("Page.setLifecycleEventsEnabled", fields("enabled", true));
}

asio::awaitable<void> ChromiumPage::set_up(PageOptions options) {
  co_await observe();
  viewport_ = fields("width", options.width(), "height", options.height());
  co_await session_->call("Emulation.setDeviceMetricsOverride",
                          fields("width", options.width(), "height", options.height(), "deviceScaleFactor",
                                 options.device_pixel_ratio(), "mobile", false));
  co_await session_->call("Emulation.setFocusEmulationEnabled", fields("enabled", true));
}

// A page that is just navigating, or waits for its owner to answer a dialog,
// cannot tell: then the last size stands.
asio::awaitable<void> ChromiumPage::measure() {
  constexpr auto limit = std::chrono::seconds(2);
  auto asked =
      session_->call("Runtime.evaluate",
                     fields("expression", "({width: innerWidth, height: innerHeight})", "returnByValue", true), limit);
  auto outcome = co_await runtime::try_await(std::move(asked));
  if (!outcome.has_value() || outcome.value().contains("exceptionDetails")) co_return;
  const json::value size = evaluated_value(std::move(outcome.value()));
  if (size.is_object() && size.get_object().contains("width")) viewport_ = size.get_object();
}

void ChromiumPage::on_event(std::string_view method, const json::object& params) {
  if (method == "Page.javascriptDialogOpening") {
    if (owner_ == Owner::us) answer_dialog(*session_, params);
  } else if (loading_) {
    loading_->see(method, params);
  }
}

asio::awaitable<json::object> ChromiumPage::full_page_clip() {
  const json::object metrics = co_await session_->call("Page.getLayoutMetrics");
  const json::object& size = object_of(metrics, "cssContentSize");
  if (!size.contains("width") || !size.contains("height"))
    throw BrowserError("the browser did not tell the page's size");
  co_return fields("x", 0, "y", 0, "width", size.at("width"), "height", size.at("height"), "scale", 1);
}

asio::awaitable<Bytes> ChromiumPage::screenshot(ScreenshotOptions options) {
  co_await session_->call("Page.bringToFront");
  if (owner_ == Owner::someone_else) co_await measure();
  json::object params = fields("format", "png", "optimizeForSpeed", optimize_for_speed_);
  if (options.full_page()) {
    params["clip"] = co_await full_page_clip();
    params["captureBeyondViewport"] = true;
  }
  co_return co_await session_->call_for_picture("Page.captureScreenshot", std::move(params));
}

asio::awaitable<json::value> ChromiumPage::evaluate(std::string expression) {
  try {
    json::object result = co_await session_->call(
        "Runtime.evaluate", fields("expression", expression, "returnByValue", true, "awaitPromise", true));
    co_return evaluated_value(std::move(result));
  } catch (const ProtocolError& error) {
    if (!has_no_json_form(error)) throw;
  }
  co_return json::value();
}

asio::awaitable<void> ChromiumPage::navigate(std::string url) {
  LoadWaiter load(session_);
  struct Listening {  // until this frame goes, in whatever way
    LoadWaiter*& slot;
    LoadWaiter* mine;
    Listening(LoadWaiter*& s, LoadWaiter* m) : slot(s), mine(m) { slot = m; }
    ~Listening() {
      if (slot == mine) slot = nullptr;
    }
  } listening(loading_, &load);
  const json::object answer = co_await session_->call("Page.navigate", fields("url", url));
  if (const auto error = text_of(answer, "errorText"); !error.empty()) {
    throw NavigationError("cannot load " + text::one_line(url) + ": " + std::string(error));
  }
  if (!answer.contains("loaderId")) co_return;  // within the same document
  co_await load.wait(session_->limit(), "load of " + text::one_line(url));
}

asio::awaitable<void> ChromiumPage::close() {
  if (session_->ended()) co_return;
  Waiter end(session_);
  auto asked = browser_->call("Target.closeTarget", fields("targetId", target_id_));
  const auto outcome = co_await runtime::try_await(std::move(asked));
  if (!session_->ended() && outcome.error()) std::rethrow_exception(outcome.error());
  const auto waited = co_await runtime::try_await(end.wait(session_->limit(), "page.close"));
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
