#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/errors.hpp"
#include "chromium/launch_options.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::chromium {

class Session;
class LoadWaiter;

/// A page of a Chromium browser, got from Browser::new_page or Browser::attach.
///
/// Every operation throws PageClosedError once the page or the browser has ended,
/// PageCrashedError once its renderer died, CommandTimeout when the browser does
/// not answer in time, ProtocolError when it refuses; each also when that happens
/// in the middle. Cancelling (terminal) ends an operation at once and leaves the
/// page usable; what the browser had been told may still happen.
///
/// On a page of ours JavaScript dialogs are dismissed as they open, and the
/// question whether to leave a page is answered with leave; in a browser that
/// launch() started, in every window that it opens too. A page of someone else
/// keeps its settings, and its dialogs wait for their owner: one in a window that
/// a page of ours opened in such a browser holds up both.
///
/// Not thread-safe: to be used on the event loop of its Browser, and to be kept
/// until its operations have ended. Destroying it closes a page of ours without
/// waiting, and lets go of one of somebody else.
class ChromiumPage : public BrowserPage {
 public:
  ~ChromiumPage() override;
  ChromiumPage(const ChromiumPage&) = delete;
  ChromiumPage& operator=(const ChromiumPage&) = delete;

  /// The viewport in device pixels, or the whole document. Brings the page to
  /// the front of its window first: the browser draws no hidden page. Of an
  /// attached page whose owner emulates a device pixel ratio the browser gives a
  /// picture in CSS pixels.
  boost::asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override;

  /// Whether the browser is to encode later screenshots fast rather than small:
  /// the same picture in less time and more bytes, which the model's service is
  /// then sent; docs/performance.md has both measured. Default false.
  void optimize_for_speed(bool value) noexcept { optimize_for_speed_ = value; }

  /// Throws EvaluationError when the script throws or its promise is rejected.
  /// undefined, functions, symbols, NaN, infinities, windows and cyclic objects
  /// become null; a bigint becomes an integer when it fits 64 bits, else null.
  boost::asio::awaitable<boost::json::value> evaluate(std::string expression) override;

  /// The viewport given to new_page; for an attached page its inner size when it
  /// was attached to or last shot, absent when it could not be told.
  std::optional<boost::json::object> viewport_size() override;

  /// A click completes when the page has handled press and release.
  Mouse& mouse() override;
  /// press() throws std::invalid_argument, `Unknown key: "Foo"`, before anything
  /// is sent. type() sends characters off the US layout as text without key
  /// events, and a line end as Enter.
  Keyboard& keyboard() override;

  /// Goes to `url` and waits for the load event. Throws NavigationError when it
  /// cannot be loaded; an answer with an error status is a page like any other.
  boost::asio::awaitable<void> navigate(std::string url);

  /// Closes the page, whoever opened it, without asking it. Can be called again.
  boost::asio::awaitable<void> close();

  /// What Browser::attach takes; stays the same for the page's life.
  const std::string& target_id() const noexcept { return target_id_; }

 private:
  friend class Browser;
  enum class Owner { us, someone_else };
  ChromiumPage(std::shared_ptr<Session> browser, std::shared_ptr<Session> session, std::string target_id, Owner owner);
  boost::asio::awaitable<void> set_up(PageOptions options);
  boost::asio::awaitable<void> observe();
  boost::asio::awaitable<void> measure();
  boost::asio::awaitable<boost::json::object> full_page_clip();
  void on_event(std::string_view method, const boost::json::object& params);

  const std::shared_ptr<Session> browser_;
  const std::shared_ptr<Session> session_;
  const std::string target_id_;
  const Owner owner_;
  const std::unique_ptr<Mouse> mouse_;
  const std::unique_ptr<Keyboard> keyboard_;
  std::optional<boost::json::object> viewport_;
  LoadWaiter* loading_ = nullptr;
  bool optimize_for_speed_ = false;
};

}  // namespace vision::chromium
