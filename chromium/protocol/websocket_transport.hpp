#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <memory>

#include "chromium/protocol/endpoint.hpp"
#include "chromium/protocol/transport.hpp"

namespace vision::chromium {

/// The WebSocket of a browser that somebody else started.
class WebSocketTransport : public Transport {
 public:
  explicit WebSocketTransport(boost::asio::ip::tcp::socket socket);
  /// Connects and shakes hands. Sends no Origin: the browser refuses any.
  static boost::asio::awaitable<std::unique_ptr<Transport>> connect(Endpoint endpoint);

  boost::asio::awaitable<std::string> read() override;
  boost::asio::awaitable<void> write(std::string message) override;
  void close() noexcept override;

 private:
  boost::beast::websocket::stream<boost::asio::ip::tcp::socket> stream_;
};

}  // namespace vision::chromium
