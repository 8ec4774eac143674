#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <string>
#include <string_view>

#include "chromium/protocol/unshared.hpp"
#include "vision/client/http/internal/loopback.hpp"

namespace vision::chromium {

/// Where a running browser listens for DevTools connections.
class DevToolsUrl {
 public:
  DevToolsUrl() {}
  std::string scheme;  ///< "http" or "ws"
  std::string host;    ///< an IPv6 address without its brackets
  std::string port;
  std::string path;  ///< begins with a slash; "/" when the URL has none

  /// Host and port in the form of a Host header.
  std::string authority() const;
};

/// Parses "http://127.0.0.1:9222" or "ws://127.0.0.1:9222/devtools/browser/...".
/// Throws std::invalid_argument, with the URL and the reason, for anything else.
DevToolsUrl parse_devtools_url(std::string_view url);

// Whoever reaches the port controls the browser, so another host needs permission.
using text::is_loopback;

/// Returns a TCP socket connected to the host and port of `url`, on an untracked
/// executor. Programs that this process starts do not inherit it.
boost::asio::awaitable<Unshared<boost::asio::ip::tcp::socket>> open_socket(const DevToolsUrl& url);

/// Returns the browser's WebSocket URL: `url` itself if it is one, else what
/// GET /json/version reports, with the host and port of `url`.
boost::asio::awaitable<DevToolsUrl> discover_browser(DevToolsUrl url);

}  // namespace vision::chromium
