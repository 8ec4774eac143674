#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/messages_client.hpp"

namespace vision {

namespace http {
struct Endpoint;
}

/// The optional parameters of HttpMessagesClient. Setters chain:
/// `HttpOptions().base_url("https://gateway.example").ca_file("/etc/gateway.pem")`.
class HttpOptions {
 public:
  HttpOptions() {}

  /// Where the API is, an http or https URL to which "/v1/messages" is appended
  /// (slashes at its end are ignored). http is accepted for this machine alone
  /// (localhost, 127.0.0.0/8, ::1), which no proxy is asked for. Default:
  /// ANTHROPIC_BASE_URL when it is set and not empty, else
  /// https://api.anthropic.com.
  HttpOptions& base_url(std::string value) {
    base_url_ = std::move(value);
    return *this;
  }
  /// Also accept http to other machines: the API key and the screenshots travel
  /// in the clear. Default false.
  HttpOptions& allow_plain_http(bool value) {
    allow_plain_http_ = value;
    return *this;
  }
  /// PEM file of the certificate authorities to trust instead of the system's.
  HttpOptions& ca_file(std::string value) {
    ca_file_ = std::move(value);
    return *this;
  }
  /// Limit for resolving, connecting and the TLS handshake together. Default
  /// 10 s. Waiting for the response has no limit of its own.
  HttpOptions& connect_timeout(std::chrono::milliseconds value) {
    connect_timeout_ = value;
    return *this;
  }
  /// Largest response body accepted, in bytes. Default 1 MiB: an answer has a few kB.
  HttpOptions& max_response_bytes(std::size_t value) {
    max_response_bytes_ = value;
    return *this;
  }

  ///@{
  /// The value that was set, or its default.
  const std::optional<std::string>& base_url() const noexcept { return base_url_; }
  bool allow_plain_http() const noexcept { return allow_plain_http_; }
  const std::string& ca_file() const noexcept { return ca_file_; }
  std::chrono::milliseconds connect_timeout() const noexcept { return connect_timeout_; }
  std::size_t max_response_bytes() const noexcept { return max_response_bytes_; }
  ///@}

 private:
  std::optional<std::string> base_url_;
  bool allow_plain_http_ = false;
  std::string ca_file_;
  std::chrono::milliseconds connect_timeout_{10'000};
  std::size_t max_response_bytes_ = std::size_t{1} << 20;
};

/// The Messages API over HTTP/1.1, one request per `create`.
///
/// Connections are kept alive and pooled per execution context: they belong to
/// the context whose coroutine calls `create` and are closed when it is
/// destroyed, requests in flight included. As many are kept as requests were in
/// flight at once; when none is in flight and more than 32 were, all are closed.
/// A client may be used from several contexts, and from a context that several
/// threads run. Proxies are taken from the environment (https_proxy, http_proxy,
/// all_proxy, no_proxy). TLS certificates are always verified, and TLS 1.2 is the
/// oldest version; redirects are not followed.
class HttpMessagesClient : public MessagesClient {
 public:
  /// Throws std::invalid_argument for an API key that is empty or holds anything
  /// but visible ASCII characters (white space around it is dropped), for a
  /// malformed base URL or one that would send the key unencrypted to another
  /// machine, and for a time-out or size limit that is not positive.
  explicit HttpMessagesClient(std::string api_key, HttpOptions options = HttpOptions());

  /// Streams the request and gives the response's JSON object, which owns its
  /// memory as one block. The client may be destroyed meanwhile.
  ///
  /// Throws APITimeoutError when connecting takes too long; APIConnectionError
  /// for any other way of getting no whole response, its `reason()` telling
  /// them apart; APIResponseValidationError
  /// for a response that is no JSON object, larger than max_response_bytes,
  /// nested deeper than 64 levels or compressed; a status error
  /// (api_error.hpp) for any status but 2xx.
  ///
  /// Neither a message nor the value given holds the API key, should the endpoint
  /// repeat it: plain, in base64, URL-encoded, in hexadecimal digits or escaped as
  /// in JSON it is replaced by "[API key]" (keys of at least eight characters).
  ///
  /// Cancellation of any kind that reaches it ends it at once with
  /// operation_aborted and closes the request's connection.
  boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

 private:
  std::shared_ptr<const http::Endpoint> endpoint_;
};

}  // namespace vision
