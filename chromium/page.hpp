#pragma once

#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/errors.hpp"
#include "chromium/launch_options.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/runtime/time.hpp"

namespace vision::chromium {

class Dialogs;
class DocumentGuard;
class LoadWaiter;
class PageMouse;
class PageProbe;
class Session;

/// A page of a Chromium browser, returned by Browser::new_page or Browser::attach.
///
/// Every operation throws PageClosedError once the page or the browser has ended,
/// PageCrashedError once the renderer has crashed, including during the operation;
/// CommandTimeout if the browser does not reply in time; ProtocolError if the browser
/// refuses. Terminal cancellation ends an operation at once and leaves the page usable;
/// what was already sent to the browser may still take effect.
///
/// On a page opened by new_page(), JavaScript dialogs are dismissed as they open, and
/// beforeunload prompts are accepted. In a browser started by launch() the same holds for
/// every window that a page opens. An attached page keeps its settings, and its dialogs
/// wait for its owner; a CommandTimeout says when one has opened. In a browser found by
/// connect(), a dialog in a window that our page opened also stops our page.
///
/// Not thread-safe: use it only on the event loop of its Browser. It must outlive its
/// operations. Destroying it closes a page opened by new_page() and detaches from an
/// attached page, in both cases without waiting.
class ChromiumPage : public BrowserPage {
 public:
  ~ChromiumPage() override;
  ChromiumPage(const ChromiumPage&) = delete;
  ChromiumPage& operator=(const ChromiumPage&) = delete;

  /// Returns the viewport, or the whole document, in device pixels. First brings the
  /// page to the front of its window, because the browser does not draw a hidden page.
  /// Then waits for a navigation that has begun, so that the picture shows the page on
  /// which the next action takes effect; after 7 s without an answer from the server it
  /// returns the old page, which still takes actions, or throws CommandTimeout if the
  /// whole document was asked for. Waits up to 3 s of these for web fonts that are loading,
  /// whose text is not drawn yet. If the owner of an attached page emulates a device pixel
  /// ratio, the browser returns CSS pixels.
  boost::asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override;

  /// Whether the browser encodes later screenshots fast rather than small: the same
  /// picture in a third of the time, but up to two thirds more bytes, all of which are
  /// sent to the model's service. A picture that would then have more than 5 MB of base64
  /// text is taken again, small, and so are the next ones at once while they are as large. docs/screenshots.md says
  /// when small is better. Default true.
  void optimize_for_speed(bool value) noexcept { optimize_for_speed_ = value; }

  /// Runs a script as eval does in the page, so that `let`, `const` and `class` end with
  /// it, and returns its value, or its promise's, as JSON.stringify converts it: a Date is
  /// a text, a rectangle an object. What has no JSON form becomes null: undefined, a
  /// function, a symbol, NaN, an infinity, a window, a cyclic object. A bigint becomes an
  /// integer if it fits into 64 bits, else null. Throws EvaluationError if the script
  /// throws or its promise is rejected.
  ///
  /// The browser runs no script while a navigation waits for its server. If the last
  /// screenshot was of a page that waits like this, "window.devicePixelRatio" is the last
  /// known one.
  boost::asio::awaitable<boost::json::value> evaluate(std::string expression) override;

  /// The viewport given to new_page(). For an attached page, its inner size at the
  /// time of attach() or of the last screenshot; std::nullopt if the page did not respond.
  std::optional<boost::json::object> viewport_size() override;

  /// Input first brings the page to the front of its window, because a hidden page handles
  /// none. docs/input.md tells what input can and cannot do.
  ///
  /// A click or key throws BrowserError, and nothing is sent, if the page has changed to
  /// another document since the last screenshot(), from which the input was decided. This
  /// ends with the next screenshot(), navigate() or evaluate(), other than of
  /// "window.devicePixelRatio". It concerns only the first click or key after a screenshot.
  ///
  /// A click moves the mouse there, gives the page a frame to react to that, presses and
  /// releases, and completes when the page has handled both: about 33 ms. Throws BrowserError,
  /// before it moves the mouse, while a native list or picker is open (`<select>`, date,
  /// time, colour), whose entries no click reaches, and before it presses, if the page
  /// changes to another document meanwhile. Throws std::invalid_argument for a coordinate
  /// or delta that is not finite.
  Mouse& mouse() override;
  /// press() throws std::invalid_argument before it sends anything: `Unknown key: "Foo"`,
  /// or for more than 16 keys. It also knows the names that models write for keys:
  /// "Return", "Esc", "ctrl+a", "Page_Down". type() sends characters that the US layout
  /// does not have as text without key events, and a line end as Enter.
  Keyboard& keyboard() override;

  /// Navigates to `url` and waits for the load event. Throws NavigationError if it
  /// cannot be loaded, or as soon as a later navigate() has replaced its document. A
  /// response with an error status counts as loaded.
  boost::asio::awaitable<void> navigate(std::string url);

  /// Closes the page, whoever opened it, without asking the page (no beforeunload
  /// prompt). Idempotent.
  boost::asio::awaitable<void> close();

  /// The id that Browser::attach takes. Never changes.
  const std::string& target_id() const noexcept { return target_id_; }

 private:
  friend class Browser;
  enum class Owner { us, someone_else };
  enum class Attempt { first, last };
  ChromiumPage(std::shared_ptr<Session> browser, std::shared_ptr<Session> session, std::string target_id, Owner owner);
  boost::asio::awaitable<void> set_up(PageOptions options);
  boost::asio::awaitable<void> enable_events();
  boost::asio::awaitable<void> measure();
  void take_size();
  boost::asio::awaitable<Bytes> capture(ScreenshotOptions options, Attempt attempt);
  boost::asio::awaitable<boost::json::object> full_page_clip();
  void handle_event(std::string_view method, const boost::json::object& params);

  const std::shared_ptr<Session> browser_session_;
  const std::shared_ptr<Session> session_;
  const std::string target_id_;
  const Owner owner_;
  const std::unique_ptr<Dialogs> dialogs_;  // used for a page of ours
  const std::unique_ptr<PageProbe> probe_;
  const std::unique_ptr<DocumentGuard> guard_;
  const std::unique_ptr<PageMouse> mouse_;
  const std::unique_ptr<Keyboard> keyboard_;
  std::optional<boost::json::object> viewport_;
  std::list<LoadWaiter*> loads_;  // of the navigate() calls in progress
  bool dialog_is_open_ = false;   // on a page of someone else
  bool optimize_for_speed_ = true;
  bool is_too_large_fast_ = false;  // the last picture, were it encoded fast
};

}  // namespace vision::chromium
