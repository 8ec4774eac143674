#pragma once

#include <curl/curl.h>

#include <string>

#include "tools/check/endpoint.hpp"

namespace check {

/// One blocking exchange with an endpoint, with the settings of the library's own.
class Transfer {
 public:
  explicit Transfer(const Endpoint& endpoint);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  CURLcode connect();
  CURLcode post(const std::string& url, const std::string& body);

  ///@{
  /// Of the exchange that has ended.
  const std::string& proxy_variable() const { return proxy_variable_; }  ///< https_proxy; empty without a proxy
  const std::string& proxy() const { return proxy_; }                    ///< host and port, no credentials
  const std::string& body() const { return body_; }
  std::string address() const;  ///< of the peer: the proxy, or the endpoint
  std::string error(CURLcode code) const;
  long number(CURLINFO which) const;
  double milliseconds(CURLINFO which) const;
  ///@}

 private:
  static int on_debug(CURL* easy, curl_infotype type, char* data, std::size_t size, void* self) noexcept;
  static std::size_t on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept;

  const Endpoint& endpoint_;
  CURL* const easy_;
  char error_text_[CURL_ERROR_SIZE] = "";
  std::string proxy_variable_, proxy_, body_;
};

}  // namespace check
