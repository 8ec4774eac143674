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
class Session;
class Windows;

/// An open page as the browser lists it.
class PageInfo {
 public:
  /// All three members, in their order.
  PageInfo(std::string id, std::string page_url, std::string page_title)
      : target_id(std::move(id)), url(std::move(page_url)), title(std::move(page_title)) {}
  std::string target_id;  ///< what attach() takes
  std::string url;        ///< of its main frame
  std::string title;      ///< as the browser shows it
};

/// A Chromium that runs, started by launch() or found by connect().
///
/// Belongs to the event loop on which it was made, must be destroyed before that
/// context, and is not thread-safe. Errors, time limits and cancellation are
/// those of ChromiumPage.
class Browser {
 public:
  /// Ends a launched browser at once, blocking until its processes and its
  /// profile directory are gone (about a tenth of a second, and about ten seconds
  /// when something of it cannot be killed); await close() to avoid that.
  /// Disconnects from any other. Pages fail from then on.
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  /// All open pages, in no particular order.
  boost::asio::awaitable<std::vector<PageInfo>> pages();

  /// A page that somebody else opened, which keeps all its settings. Throws
  /// BrowserError when there is no page with this id.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> attach(std::string target_id);

  /// A new empty page in a window of its own. Throws std::invalid_argument for a
  /// viewport or a device pixel ratio out of its range.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> new_page(PageOptions options);
  /// The same with the default viewport.
  boost::asio::awaitable<std::shared_ptr<ChromiumPage>> new_page();

  /// Ends a launched browser and completes when its processes and its profile
  /// directory are gone. From any other it disconnects, after closing the pages
  /// that new_page opened in it. Can be called again.
  boost::asio::awaitable<void> close();

 private:
  friend boost::asio::awaitable<std::shared_ptr<Browser>> launch(LaunchOptions options);
  friend boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options);
  Browser(std::unique_ptr<BrowserProcess> process, std::shared_ptr<Connection> connection);
  boost::asio::awaitable<void> set_up();
  boost::asio::awaitable<std::shared_ptr<Session>> open_session(std::string target_id);
  boost::asio::awaitable<void> close_our_pages();

  std::unique_ptr<BrowserProcess> process_;  // null when somebody else started it
  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<Session> session_;
  std::unique_ptr<Windows> windows_;  // of a browser that we launched
  std::vector<std::weak_ptr<ChromiumPage>> our_pages_;
};

/// Starts a browser of our own, with a temporary profile and no open port, and
/// completes when it answers. It ends, and its profile goes, with the Browser
/// object or with this process, also when that is killed. It inherits this
/// process's environment without ANTHROPIC_API_KEY.
///
/// All its pages are ours, those too that a page opens: their dialogs are answered
/// as ChromiumPage says, they close with the page that opened them, and nothing is
/// downloaded to disk.
///
/// Throws BrowserError when it cannot be started, with the end of what it wrote to
/// standard error.
boost::asio::awaitable<std::shared_ptr<Browser>> launch(LaunchOptions options);
/// The same with default options.
boost::asio::awaitable<std::shared_ptr<Browser>> launch();

/// Connects to a running browser: "http://127.0.0.1:9222" (its debugging port) or
/// "ws://127.0.0.1:9222/devtools/browser/...". Throws std::invalid_argument for
/// any other URL and, unless allowed, for a host other than this machine;
/// BrowserError or system_error when no browser answers there.
boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options);
/// The same with default options.
boost::asio::awaitable<std::shared_ptr<Browser>> connect(std::string url);

}  // namespace vision::chromium
