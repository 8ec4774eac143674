#include "chromium/page.hpp"

#include <utility>

#include "chromium/events/dialogs.hpp"
#include "chromium/events/emulation.hpp"
#include "chromium/events/navigation.hpp"
#include "chromium/events/probe.hpp"
#include "chromium/input/document_guard.hpp"
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
namespace {

// How the browser refuses a screenshot while one document replaces another. The protocol
// gives these the same code as other refusals, so the text decides.
bool is_between_documents(const ProtocolError& error) {
  const std::string_view message = error.browser_message();
  return message.starts_with("Not attached to an active page") ||
         message.starts_with("Cannot take screenshot with 0 ") || message.starts_with("Unable to capture screenshot");
}

}  // namespace

ChromiumPage::ChromiumPage(std::shared_ptr<Session> browser, std::shared_ptr<Session> session, std::string target_id,
                           Owner owner)
    : browser_session_(std::move(browser)),
      session_(std::move(session)),
      target_id_(std::move(target_id)),
      owner_(owner),
      dialogs_(std::make_unique<Dialogs>(*session_)),
      probe_(std::make_unique<PageProbe>(session_)),
      guard_(std::make_unique<DocumentGuard>()),
      mouse_(std::make_unique<PageMouse>(session_, *guard_)),
      keyboard_(std::make_unique<PageKeyboard>(session_, *guard_)) {
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
// page reply while one is open or a navigation is pending, so a time-out here means that
// one of them began before.
asio::awaitable<void> ChromiumPage::enable_events() {
  session_->set_obstacle(
      "a dialog may be open that the page's owner has not answered, or a navigation may wait for its server");
  co_await session_->command("Page.enable");
  session_->set_obstacle({});
  co_await session_->command("Inspector.enable");
  co_await session_->command("Page.setLifecycleEventsEnabled", make_object("enabled", true));
}

asio::awaitable<void> ChromiumPage::set_up(PageOptions options) {
  co_await enable_events();
  viewport_ = make_object("width", options.width(), "height", options.height());
  for (auto& [method, params] : emulation_of(options)) co_await session_->command(method, std::move(params));
  co_await measure();
}

// No page answers while a dialog is open.
asio::awaitable<void> ChromiumPage::measure() {
  if (!dialog_is_open_) co_await probe_->measure();
  take_size();
}

// That of a page of ours is known.
void ChromiumPage::take_size() {
  if (owner_ == Owner::someone_else && probe_->size()) viewport_ = probe_->size();
}

void ChromiumPage::handle_event(std::string_view method, const json::object& params) {
  if (commits_document(method, params)) guard_->document_changed();
  if (owner_ == Owner::us) return dialogs_->handle_event(method, params);
  if (method == "Page.javascriptDialogOpening") {
    dialog_is_open_ = true;
    constexpr std::size_t max_message = 100;
    session_->set_obstacle("a dialog is open (" + text::one_line(text_of(params, "type")) + " \"" +
                           text::one_line(text::first_code_points(text_of(params, "message"), max_message)) +
                           "\") that the page's owner has not answered");
  } else if (method == "Page.javascriptDialogClosed") {
    dialog_is_open_ = false;
    session_->set_obstacle({});
  }
}

asio::awaitable<json::object> ChromiumPage::full_page_clip() {
  const runtime::Duration limit = probe_->answered() ? session_->command_timeout() : PageProbe::short_limit;
  const json::object metrics = co_await session_->command("Page.getLayoutMetrics", json::object(), limit);
  const json::object& size = object_of(metrics, "cssContentSize");
  if (!size.contains("width") || !size.contains("height"))
    throw BrowserError("the browser did not report the size of the page");
  co_return make_object("x", 0, "y", 0, "width", size.at("width"), "height", size.at("height"), "scale", 1);
}

asio::awaitable<Bytes> ChromiumPage::capture(ScreenshotOptions options, Attempt attempt) {
  co_await session_->command("Page.bringToFront");
  if (!dialog_is_open_) co_await probe_->wait_for_picture();
  take_size();
  json::object params = make_object("format", "png", "optimizeForSpeed", optimize_for_speed_ && !is_too_large_fast_);
  if (options.full_page()) {
    params["clip"] = co_await full_page_clip();
    params["captureBeyondViewport"] = true;
  }
  const std::uint64_t document = guard_->document();
  const auto spoils = attempt == Attempt::first ? commits_document : nullptr;
  Bytes picture = co_await session_->command_for_picture("Page.captureScreenshot", params, spoils);
  constexpr std::size_t max_size = 5'000'000 / 4 * 3;  // some endpoints take no more than 5 MB of base64
  if (picture.size() > max_size && params.at("optimizeForSpeed").as_bool()) {
    params["optimizeForSpeed"] = false;
    picture = co_await session_->command_for_picture("Page.captureScreenshot", params, spoils);
  }
  // Encoded fast, it has up to two thirds more bytes: then the next one is taken small at once.
  if (!params.at("optimizeForSpeed").as_bool()) is_too_large_fast_ = picture.size() / 3 * 5 > max_size;
  guard_->picture_taken(document);
  co_return picture;
}

// The browser may never reply when another document comes while it takes the picture,
// which would be of the old one. A page that never rests is taken as it is.
asio::awaitable<Bytes> ChromiumPage::screenshot(ScreenshotOptions options) {
  try {
    co_return co_await capture(options, Attempt::first);
  } catch (const PictureSpoiled&) {
  } catch (const ProtocolError& error) {
    if (!is_between_documents(error)) throw;
  }
  constexpr auto pause = std::chrono::milliseconds(50);  // trying again at once meets the same state
  co_await runtime::sleep_for(pause);
  co_return co_await capture(options, Attempt::last);
}

asio::awaitable<json::value> ChromiumPage::evaluate(std::string expression) {
  const bool is_ratio = expression == "window.devicePixelRatio";  // which goes with a screenshot
  const bool is_known = is_ratio && !probe_->ratio().is_null();
  if (is_known && !probe_->answered()) co_return probe_->ratio();
  const runtime::Duration limit = is_known ? PageProbe::short_limit : session_->command_timeout();
  try {
    const json::object result = co_await session_->command("Runtime.evaluate", evaluation(expression), limit);
    if (!is_ratio) guard_->forget_picture();
    co_return evaluated_value(result);
  } catch (const CommandTimeout&) {
    if (!is_known) throw;
  }
  co_return probe_->ratio();
}

asio::awaitable<void> ChromiumPage::navigate(std::string url) {
  guard_->forget_picture();
  const std::string shown = text::one_line(url);
  LoadWaiter load(session_, loads_, shown);
  const json::object reply = co_await session_->command("Page.navigate", make_object("url", url));
  if (const auto error = text_of(reply, "errorText"); !error.empty()) {
    throw NavigationError("cannot load " + shown + ": " + text::one_line(error));
  }
  if (!reply.contains("loaderId")) co_return;  // moved within the same document: no load event comes
  load.supersede_earlier();
  co_await load.wait(session_->command_timeout(), "load of " + shown);
  guard_->forget_picture();  // one that was taken meanwhile
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
