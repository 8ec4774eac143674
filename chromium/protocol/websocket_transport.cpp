#include "chromium/protocol/websocket_transport.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <utility>

namespace vision::chromium {
namespace asio = boost::asio;

// How the stream ends the connection after a closing frame, the peer's or its own after an
// error. Its way for ordinary sockets waits until the peer ends it, which a peer may never.
template <class Handler>
void async_teardown(boost::beast::role_type, Unshared<asio::ip::tcp::socket>& socket, Handler&& handler) {
  socket.end();
  asio::post(socket.get_executor(),
             boost::beast::bind_handler(std::forward<Handler>(handler), boost::system::error_code()));
}

WebSocketTransport::WebSocketTransport(Unshared<asio::ip::tcp::socket> socket) : stream_(std::move(socket)) {
  stream_.text(true);  // the browser drops the connection for a binary frame
  stream_.read_message_max(max_message_size);
  stream_.auto_fragment(false);  // fewer, larger writes
}

asio::awaitable<std::unique_ptr<Transport>> WebSocketTransport::connect(DevToolsUrl url) {
  auto socket = co_await open_socket(url);
  auto transport = std::make_unique<WebSocketTransport>(std::move(socket));
  co_await transport->stream_.async_handshake(url.authority(), url.path, asio::use_awaitable);
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

// Without a closing handshake, which an unresponsive browser would never finish.
void WebSocketTransport::close() noexcept {
  stream_.next_layer().end();
}

}  // namespace vision::chromium
