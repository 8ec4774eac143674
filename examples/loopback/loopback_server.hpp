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

/// Answers a request. An exception becomes the refusal with status 500. A handler
/// must own everything that it uses: a request can briefly outlive the server object.
using Handler = std::function<boost::asio::awaitable<Response>(const Request&)>;

/// The response to a request that the handler does not answer: 400 when it is not
/// HTTP, 413 when its body exceeds the limit, 500 when the handler failed.
using Refusal = std::function<Response(boost::beast::http::status status)>;

/// A response with a body of that content type; the server adds the other headers.
Response make_response(boost::beast::http::status status, const char* content_type, std::string body);

/// The optional parameters of LoopbackServer.
class ServerOptions {
 public:
  ServerOptions() {}
  /// TCP port. Default 0: any free one.
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

/// A small HTTP/1.1 server on 127.0.0.1 that keeps connections alive. It serves on
/// the executor it is given, from construction to `stop`. Not thread-safe: use it on
/// the thread that runs the executor.
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
  /// Closes the listening socket and every connection, and cancels the requests in
  /// progress. Idempotent.
  void stop();

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::uint16_t port_ = 0;
};

}  // namespace loopback
