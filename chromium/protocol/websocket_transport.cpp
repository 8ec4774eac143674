#include "chromium/protocol/websocket_transport.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <utility>

namespace vision::chromium {
namespace asio = boost::asio;

WebSocketTransport::WebSocketTransport(asio::ip::tcp::socket socket) : stream_(std::move(socket)) {
  stream_.text(true);
  stream_.read_message_max(max_message_size);
  stream_.auto_fragment(false);
}

asio::awaitable<std::unique_ptr<Transport>> WebSocketTransport::connect(Endpoint endpoint) {
  auto socket = co_await open_socket(endpoint);
  auto transport = std::make_unique<WebSocketTransport>(std::move(socket));
  co_await transport->stream_.async_handshake(endpoint.authority(), endpoint.path, asio::use_awaitable);
  co_return std::move(transport);
}

asio::awaitable<std::string> WebSocketTransport::read() {
  std::string message;
  auto buffer = asio::dynamic_buffer(message);
  co_await stream_.async_read(buffer, asio::use_awaitable);
  co_return message;
}

asio::awaitable<void> WebSocketTransport::write(std::string message) {
  co_await stream_.async_write(asio::buffer(message), asio::use_awaitable);
}

void WebSocketTransport::close() noexcept {
  boost::system::error_code ignored;
  stream_.next_layer().close(ignored);
}

}  // namespace vision::chromium
