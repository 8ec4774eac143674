#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <string>
#include <string_view>

#include "vision/client/http/internal/loopback.hpp"

namespace vision::chromium {

/// Where a running browser listens.
class Endpoint {
 public:
  Endpoint() {}
  std::string scheme;  ///< "http" or "ws"
  std::string host;    ///< without the brackets of an IPv6 address
  std::string port;
  std::string path;  ///< with its leading slash; "/" when the URL has none

  /// Host and port as a Host header has them.
  std::string authority() const;
};

/// Takes "http://127.0.0.1:9222" or "ws://127.0.0.1:9222/devtools/browser/..."
/// apart. Throws std::invalid_argument that names the URL when it is neither.
Endpoint parse_endpoint(std::string_view url);

// Whoever reaches the DevTools port owns the browser, so elsewhere needs an explicit word.
using text::is_loopback;

/// A connected TCP socket to the endpoint.
boost::asio::awaitable<boost::asio::ip::tcp::socket> open_socket(const Endpoint& endpoint);

/// The browser's WebSocket endpoint: `endpoint` itself when it is one already,
/// else as GET /json/version tells it, on the host and port of `endpoint`.
boost::asio::awaitable<Endpoint> find_browser(Endpoint endpoint);

}  // namespace vision::chromium
