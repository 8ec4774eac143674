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

  /// Where the API is, an http or https URL to which "/v1/messages" is appended
  /// (slashes at its end are ignored). http is accepted for this machine alone
  /// (localhost, 127.0.0.0/8, ::1), which no proxy is asked for. Default:
  /// ANTHROPIC_BASE_URL when it is set and not empty, else
  /// https://api.anthropic.com.
  HttpOptions& base_url(std::string value) & {
    base_url_ = std::move(value);
    return *this;
  }
  /// Also accept http to other machines: the API key and the screenshots travel
  /// in the clear. Default false.
  HttpOptions& allow_plain_http(bool value) & {
    allow_plain_http_ = value;
    return *this;
  }
  /// PEM file of the certificate authorities to trust instead of the system's.
  HttpOptions& ca_file(std::string value) & {
    ca_file_ = std::move(value);
    return *this;
  }
  /// Limit for resolving, connecting and the TLS handshake together. Default
  /// 10 s. Waiting for the response has no limit of its own.
  HttpOptions& connect_timeout(std::chrono::milliseconds value) & {
    connect_timeout_ = value;
    return *this;
  }
  /// Largest response body accepted, in bytes. Default 1 MiB: an answer has a few kB.
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
