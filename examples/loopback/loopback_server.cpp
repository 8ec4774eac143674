#include "examples/loopback/loopback_server.hpp"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <chrono>
#include <list>

#include "vision/runtime/internal/await.hpp"

namespace loopback {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;
constexpr auto no_throw = asio::as_tuple(asio::use_awaitable);

Response plain_refusal(http::status status) {
  return make_response(status, "text/plain; charset=utf-8", std::string(http::obsolete_reason(status)) + "\n");
}

// Closing a socket with unread input resets the connection, and the client would
// lose the response that says why. So the rest of its input is read and discarded.
asio::awaitable<void> drain(tcp::socket& socket) {
  error_code ignored;
  socket.shutdown(tcp::socket::shutdown_send, ignored);
  std::string sink(1 << 16, '\0');
  for (;;) {
    const auto [error, size] = co_await socket.async_read_some(asio::buffer(sink), no_throw);
    if (error) co_return;
  }
}

}  // namespace

struct LoopbackServer::State : std::enable_shared_from_this<State> {
  struct Connection {
    explicit Connection(tcp::socket peer) : socket(std::move(peer)) {}
    tcp::socket socket;
    asio::cancellation_signal cancel;
  };
  using RequestParser = http::request_parser<http::string_body>;

  State(const asio::any_io_executor& executor, Handler on_request, ServerOptions chosen)
      : acceptor(executor), handler(std::move(on_request)), options(std::move(chosen)) {}

  void listen() {
    const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), options.port());
    acceptor.open(endpoint.protocol());
    acceptor.set_option(asio::socket_base::reuse_address(true));
    try {
      acceptor.bind(endpoint);
      acceptor.listen();
    } catch (const boost::system::system_error& error) {
      throw boost::system::system_error(error.code(), "cannot listen on 127.0.0.1:" + std::to_string(options.port()));
    }
  }

  static asio::awaitable<void> accept(std::shared_ptr<State> self) {
    while (self->acceptor.is_open()) {
      auto [error, socket] = co_await self->acceptor.async_accept(no_throw);
      if (error) {  // for example no descriptors left: do not spin
        co_await vision::runtime::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      socket.set_option(tcp::no_delay(true), error);
      auto connection = std::make_shared<Connection>(std::move(socket));
      self->connections.push_back(connection);
      auto forget = [self, connection](std::exception_ptr) { self->connections.remove(connection); };
      asio::co_spawn(self->acceptor.get_executor(), serve(self, connection),
                     asio::bind_cancellation_slot(connection->cancel.slot(), std::move(forget)));
    }
  }

  static asio::awaitable<void> serve(std::shared_ptr<State> self, std::shared_ptr<Connection> connection) {
    boost::beast::flat_buffer buffer;
    bool more = true;
    while (more) {
      RequestParser parser;
      parser.body_limit(self->options.body_limit());
      const error_code error = co_await read(connection->socket, buffer, parser);
      if (error && error.category() != http::make_error_code(http::error::body_limit).category()) co_return;
      if (error == http::error::end_of_stream || error == http::error::partial_message) co_return;
      Response response;
      if (error) {
        response = self->refuse(error == http::error::body_limit ? http::status::payload_too_large
                                                                 : http::status::bad_request);
        response.keep_alive(false);
      } else {
        const Request request = parser.release();
        auto outcome = co_await vision::runtime::try_await(self->handler(request));
        response = outcome.has_value() ? std::move(outcome.value()) : self->refuse(http::status::internal_server_error);
        response.keep_alive(request.keep_alive());
      }
      response.prepare_payload();
      more = response.keep_alive();
      const auto [write_error, size] = co_await http::async_write(connection->socket, response, no_throw);
      if (write_error) co_return;
    }
    co_await vision::runtime::with_deadline(drain(connection->socket), std::chrono::seconds(5));
  }

  static asio::awaitable<error_code> read(tcp::socket& socket, boost::beast::flat_buffer& buffer,
                                          RequestParser& parser) {
    const auto [header_error, header_size] = co_await http::async_read_header(socket, buffer, parser, no_throw);
    if (header_error) co_return header_error;
    if (boost::beast::iequals(parser.get()[http::field::expect], "100-continue")) {
      http::response<http::empty_body> continuation(http::status::continue_, 11);
      const auto [error, size] = co_await http::async_write(socket, continuation, no_throw);
      if (error) co_return error;
    }
    const auto [error, size] = co_await http::async_read(socket, buffer, parser, no_throw);
    co_return error;
  }

  Response refuse(http::status status) const {
    return options.refusal() ? options.refusal()(status) : plain_refusal(status);
  }

  void stop() {
    error_code ignored;
    acceptor.close(ignored);
    const auto open = connections;  // ending one changes the list
    for (const auto& connection : open) {
      connection->cancel.emit(asio::cancellation_type::terminal);
      connection->socket.close(ignored);
    }
  }

  tcp::acceptor acceptor;
  Handler handler;
  ServerOptions options;
  std::list<std::shared_ptr<Connection>> connections;
};

Response make_response(http::status status, const char* content_type, std::string body) {
  Response response(status, 11);
  response.set(http::field::content_type, content_type);
  response.body() = std::move(body);
  return response;
}

LoopbackServer::LoopbackServer(const asio::any_io_executor& executor, Handler handler, ServerOptions options)
    : state_(std::make_shared<State>(executor, std::move(handler), std::move(options))) {
  state_->listen();
  port_ = state_->acceptor.local_endpoint().port();
  asio::co_spawn(executor, State::accept(state_), [state = state_](std::exception_ptr) { state->stop(); });
}

LoopbackServer::~LoopbackServer() {
  stop();
}

void LoopbackServer::stop() {
  state_->stop();
}

std::string LoopbackServer::base_url() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

}  // namespace loopback
