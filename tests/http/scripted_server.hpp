#pragma once

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vision::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;

/// What the server does with one request: how much of it is read, which bytes
/// go back, and what becomes of the connection: an end that the client can see before
/// it sends again (leave), silence (drain) or `more` again and again (flood), until the
/// client closes it.
struct Reply {
  enum class Read { all, head, none };
  enum class Then { keep, close, leave, reset, drain, flood };

  std::string bytes;
  Then then = Then::keep;
  Read read = Read::all;
  std::string more = {};
};

inline std::string response(const std::string& status, const std::string& body, const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\ncontent-length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body;
}

inline const std::string ok = response("200 OK", R"({"content": []})");

/// A loopback server that answers request after request with the next step of
/// its script; the last step repeats.
class ScriptedServer {
 public:
  using Request = beast::http::request<beast::http::string_body>;

  ScriptedServer(asio::io_context& io, std::deque<Reply> script, asio::ssl::context* tls = nullptr)
      : script_(std::move(script)), tls_(tls), acceptor_(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    asio::co_spawn(io, accept(), [](std::exception_ptr) {});
  }

  std::string url(const std::string& host = "127.0.0.1", const char* scheme = nullptr) const {
    const std::string start = scheme ? scheme : tls_ ? "https" : "http";
    return start + "://" + host + ":" + std::to_string(acceptor_.local_endpoint().port());
  }

  long open() const { return open_.use_count() - 1; }  ///< of the connections, those that have not ended

  int connections = 0;
  std::size_t flooded = 0;  ///< bytes
  std::vector<Request> requests;
  /// When set, gives each reply in place of the script, and no request is kept.
  std::function<asio::awaitable<Reply>()> choose;
  /// Told "accepted", "head", "request", "replied" and "closed" (by the client).
  std::function<void(std::string)> on_stage = [](const std::string&) {};

 private:
  asio::awaitable<void> accept() {
    for (;;) {
      tcp::socket socket = co_await acceptor_.async_accept(asio::use_awaitable);
      socket.set_option(tcp::no_delay(true));
      ++connections;
      asio::co_spawn(acceptor_.get_executor(), tls_ ? greet(std::move(socket)) : talk(std::move(socket)),
                     [open = open_](std::exception_ptr) {});  // a client that goes away in the middle
    }
  }

  asio::awaitable<void> greet(tcp::socket socket) {
    asio::ssl::stream<tcp::socket> stream(std::move(socket), *tls_);
    co_await stream.async_handshake(asio::ssl::stream_base::server, asio::use_awaitable);
    co_await talk(std::move(stream));
  }

  template <class Stream>
  asio::awaitable<void> talk(Stream stream) {
    beast::flat_buffer buffer;
    Reply reply;
    do {
      on_stage("accepted");
      if (script_.front().read != Reply::Read::none) co_await read(stream, buffer);
      if (choose) {
        requests.clear();
        reply = co_await choose();
      } else {
        reply = script_.front();
        if (script_.size() > 1) script_.pop_front();
      }
      on_stage("request");
      co_await asio::async_write(stream, asio::buffer(reply.bytes), asio::use_awaitable);
      on_stage("replied");
    } while (reply.then == Reply::Then::keep);
    tcp::socket& socket = beast::get_lowest_layer(stream);
    if (reply.then == Reply::Then::reset) socket.set_option(asio::socket_base::linger(true, 0));
    if (reply.then >= Reply::Then::drain) co_await outlast(stream, reply);
    if (reply.then == Reply::Then::leave) co_await leave(stream);
    socket.close();
  }

  // Closing lingers until the client's machine knows it.
  template <class Stream>
  static asio::awaitable<void> leave(Stream& stream) {
    tcp::socket& socket = beast::get_lowest_layer(stream);
    socket.set_option(asio::socket_base::linger(true, 600));
    if constexpr (!std::is_same_v<Stream, tcp::socket>) {
      // Once TLS's goodbye is sent; the stream would wait for the client's own.
      asio::post(stream.get_executor(), [&socket] { socket.close(); });
      boost::system::error_code error;
      co_await stream.async_shutdown(asio::redirect_error(asio::use_awaitable, error));
    }
    co_return;
  }

  template <class Stream>
  asio::awaitable<void> read(Stream& stream, beast::flat_buffer& buffer) {
    beast::http::request_parser<beast::http::string_body> parser;
    parser.body_limit(64u << 20);
    co_await beast::http::async_read_header(stream, buffer, parser, asio::use_awaitable);
    on_stage("head");
    if (script_.front().read == Reply::Read::all) {
      co_await beast::http::async_read(stream, buffer, parser, asio::use_awaitable);
    }
    requests.push_back(parser.release());
  }

  template <class Stream>
  asio::awaitable<void> outlast(Stream& stream, const Reply& reply) {
    std::string sink(1 << 16, '\0');
    boost::system::error_code error;
    while (!error) {
      auto token = asio::redirect_error(asio::use_awaitable, error);
      if (reply.then == Reply::Then::flood) {
        flooded += co_await asio::async_write(stream, asio::buffer(reply.more), std::move(token));
      } else {
        co_await beast::get_lowest_layer(stream).async_read_some(asio::buffer(sink), std::move(token));
      }
    }
    on_stage("closed");
  }

  const std::shared_ptr<void> open_ = std::make_shared<int>();
  std::deque<Reply> script_;
  asio::ssl::context* tls_;
  tcp::acceptor acceptor_;
};

}  // namespace vision::test
