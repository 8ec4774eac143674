#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <memory>

#include "chromium/protocol/devtools_url.hpp"
#include "chromium/protocol/transport.hpp"

namespace vision::chromium {

/// The WebSocket of a browser that we connected to.
class WebSocketTransport : public Transport {
 public:
  explicit WebSocketTransport(Unshared<boost::asio::ip::tcp::socket> socket);
  /// Connects to `url` and performs the handshake, without an Origin header: the
  /// browser rejects every origin.
  static boost::asio::awaitable<std::unique_ptr<Transport>> connect(DevToolsUrl url);

  boost::asio::awaitable<std::string> read() override;
  boost::asio::awaitable<void> write(std::string message) override;
  void close() noexcept override;

 private:
  boost::beast::websocket::stream<Unshared<boost::asio::ip::tcp::socket>> stream_;
};

}  // namespace vision::chromium
