#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace vision {

/// The optional parameters of HttpMessagesClient. Setters chain:
/// `HttpOptions().base_url("https://gateway.example").ca_file("/etc/gateway.pem")`.
class HttpOptions {
 public:
  HttpOptions() {}

  /// The URL of the API, http or https, to which "/v1/messages" is appended (slashes
  /// at its end are ignored). http is accepted only for this machine (localhost,
  /// 127.0.0.0/8, ::1), and then uses no proxy. Default: ANTHROPIC_BASE_URL when it
  /// is set and not empty, else https://api.anthropic.com.
  HttpOptions& base_url(std::string value) & {
    base_url_ = std::move(value);
    return *this;
  }
  /// Accept http to other machines too: the API key and the screenshots then travel
  /// unencrypted. Default false.
  HttpOptions& allow_plain_http(bool value) & {
    allow_plain_http_ = value;
    return *this;
  }
  /// PEM file of the certificate authorities to trust instead of the system's.
  HttpOptions& ca_file(std::string value) & {
    ca_file_ = std::move(value);
    return *this;
  }
  /// Limit for name resolution, connecting and the TLS handshake together. Default
  /// 10 s. Waiting for the response has no limit.
  HttpOptions& connect_timeout(std::chrono::milliseconds value) & {
    connect_timeout_ = value;
    return *this;
  }
  /// Largest response body accepted, in bytes. Default 1 MiB; an answer takes a few kB.
  HttpOptions& max_response_bytes(std::size_t value) & {
    max_response_bytes_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  HttpOptions base_url(std::string value) && { return std::move(base_url(std::move(value))); }
  HttpOptions allow_plain_http(bool value) && { return std::move(allow_plain_http(value)); }
  HttpOptions ca_file(std::string value) && { return std::move(ca_file(std::move(value))); }
  HttpOptions connect_timeout(std::chrono::milliseconds value) && { return std::move(connect_timeout(value)); }
  HttpOptions max_response_bytes(std::size_t value) && { return std::move(max_response_bytes(value)); }
  ///@}

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

}  // namespace vision
