#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "chromium/errors.hpp"
#include "chromium/launch_options.hpp"
#include "chromium/page.hpp"

/// Pages on a real Chromium over the DevTools protocol.
namespace vision::chromium {

class BrowserProcess;
class Connection;
class Popups;
class Session;

/// An open page as the browser lists it.
class PageInfo {
 public:
  /// Sets the members, in their order.
  PageInfo(std::string id, std::string page_url, std::string page_title)
      : target_id(std::move(id)), url(std::move(page_url)), title(std::move(page_title)) {}
  std::string target_id;  ///< the id that attach() takes
  std::string url;        ///< of the main frame
  std::string title;      ///< as the browser shows it
};

/// A running Chromium, started by launch() or found by connect().
///
/// Belongs to the event loop on which it was made, must be destroyed before that
/// execution context, and is not thread-safe. Errors, time limits and cancellation are
/// as described at ChromiumPage.
///
/// In a forked child its browsers are closed: operations on them and their pages throw
/// PageClosedError, destructors do nothing, and the parent's are unharmed.
///
/// Only operations in progress count as work: a browser that is merely
/// held does not keep io_context::run() from returning, for example after the coroutine
/// that would have closed it has thrown. Its dialogs are answered only while the loop
/// runs. This holds on an io_context's own executor and on its strands; on any other
/// executor a browser counts as work until close() or its destructor.
class Browser {
 public:
  /// Ends a browser started by launch() at once, and blocks until its processes and its
  /// profile directory are gone: for about a tenth of a second, or about ten seconds if one
  /// of its processes cannot be killed. Await close() first to avoid that. Disconnects from
  /// a browser found by connect(). Its pages fail from then on.
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  /// Returns all open pages, in no particular order.
  boost::asio::awaitable<std::vector<PageInfo>> pages();

  /// Attaches to a page that another program opened, and leaves its settings alone.
  /// Throws BrowserError if there is no page with this id. If cancelled, or after a time
  /// limit, detaches again.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> attach(std::string target_id);

  /// Opens an empty page in a window of its own. Throws std::invalid_argument if the
  /// viewport or the device pixel ratio is out of range. If cancelled, or after a time
  /// limit, a page that the browser has opened or opens later is closed without waiting,
  /// while the event loop runs; close() waits for it.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> new_page(PageOptions options);
  /// The same with the default viewport.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> new_page();

  /// Ends a browser started by launch(), and completes when its processes and its profile
  /// directory are gone. Disconnects from a browser found by connect(), after closing the
  /// pages that new_page() opened in it. Idempotent.
  boost::asio::awaitable<void> close();

 private:
  friend boost::asio::awaitable<std::shared_ptr<Browser>> launch(LaunchOptions options);
  friend boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options);
  Browser(std::unique_ptr<BrowserProcess> process, std::shared_ptr<Connection> connection);
  boost::asio::awaitable<void> set_up();
  boost::asio::awaitable<std::shared_ptr<Session>> open_session(std::string target_id);
  class OpenedTarget;
  boost::asio::awaitable<std::shared_ptr<OpenedTarget>> open_target(PageOptions options);
  boost::asio::awaitable<void> close_our_pages();

  std::unique_ptr<BrowserProcess> process_;  // null if connect() found it
  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<Session> session_;
  std::unique_ptr<Popups> popups_;  // null if connect() found it: its windows are not ours
  std::vector<std::weak_ptr<ChromiumPage>> our_pages_;
};

/// Starts a browser with a temporary profile and without an open port, and completes
/// when it responds. The browser and its profile are removed when the Browser is
/// destroyed or this process ends, even if it is killed. The browser inherits this
/// process's environment without ANTHROPIC_API_KEY.
///
/// All its pages are treated as ours, including those that a page opens: their dialogs
/// are answered as described at ChromiumPage, they have the viewport and ratio of the page
/// that opened them and close with it, and nothing is downloaded to disk.
///
/// Throws BrowserError if the browser does not start, with the end of what it wrote to
/// standard error.
boost::asio::awaitable<std::shared_ptr<Browser>> launch(LaunchOptions options);
/// The same with default options.
boost::asio::awaitable<std::shared_ptr<Browser>> launch();

/// Connects to a running browser: "http://127.0.0.1:9222" (its debugging port) or
/// "ws://127.0.0.1:9222/devtools/browser/...". Throws std::invalid_argument for any
/// other URL and, unless allowed, for a host other than this machine; BrowserError if no
/// browser answers there; CommandTimeout if connecting takes too long.
boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options);
/// The same with default options.
boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url);

}  // namespace vision::chromium
