#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace loopback {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// What a server does with a request. What it throws becomes the refusal of
/// status 500. It must own all that it uses: a request may outlive the server
/// object by a moment.
using Handler = std::function<boost::asio::awaitable<Response>(const Request&)>;

/// The response to what never reaches the handler: 400 for what is not HTTP, 413
/// for a body above the limit, 500 for a handler that failed.
using Refusal = std::function<Response(boost::beast::http::status status)>;

/// A response with a body of that type; the server fills in the rest.
Response make_response(boost::beast::http::status status, const char* content_type, std::string body);

/// The optional parameters of LoopbackServer.
class ServerOptions {
 public:
  ServerOptions() {}
  /// TCP port; 0, the default, takes a free one.
  ServerOptions& port(std::uint16_t value) {
    port_ = value;
    return *this;
  }
  /// Largest request body in bytes. Default 1 MiB.
  ServerOptions& body_limit(std::uint64_t value) {
    body_limit_ = value;
    return *this;
  }
  /// Default: a plain text that names the status.
  ServerOptions& refusal(Refusal value) {
    refusal_ = std::move(value);
    return *this;
  }

  std::uint16_t port() const noexcept { return port_; }
  std::uint64_t body_limit() const noexcept { return body_limit_; }
  const Refusal& refusal() const noexcept { return refusal_; }

 private:
  std::uint16_t port_ = 0;
  std::uint64_t body_limit_ = 1 << 20;
  Refusal refusal_;
};

/// A small HTTP/1.1 server on 127.0.0.1, with kept-alive connections. It serves
/// on the executor it is given, from construction to `stop`; it belongs to that
/// executor's one thread.
class LoopbackServer {
 public:
  /// Throws boost::system::system_error, naming the port, when it cannot listen.
  LoopbackServer(const boost::asio::any_io_executor& executor, Handler handler,
                 ServerOptions options = ServerOptions());
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::uint16_t port() const noexcept { return port_; }
  /// "http://127.0.0.1:" and the port.
  std::string base_url() const;
  /// Closes the listening socket and every connection and cancels the requests
  /// in progress. May be called more than once.
  void stop();

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::uint16_t port_ = 0;
};

}  // namespace loopback
