#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "vision/client/api_error.hpp"
#include "vision/client/http/internal/api_response.hpp"
#include "vision/client/http/internal/body_reader.hpp"
#include "vision/client/http/internal/endpoint.hpp"

namespace vision::detail::http {

/// One request and its outcome. The driver configures a libcurl handle with it,
/// reports the end, and does not touch it afterwards; `result` is for the waiting
/// coroutine.
class Exchange {
 public:
  Exchange(std::shared_ptr<const Endpoint> endpoint, MessagesRequest request);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Sets every option of a fresh handle, which then points to this object until it
  /// is reset.
  CURLcode configure(CURL* easy) noexcept;

  /// Records how the transfer ended. `easy` is null when it never began.
  void finish(CURL* easy, CURLcode code) noexcept;

  /// The response's JSON object. Throws what HttpMessagesClient::create throws.
  boost::json::value result() const;

 private:
  static std::size_t on_read(char* out, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t on_header(char* data, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept;

  bool take_header(std::string_view line);
  bool take_body(std::string_view piece);
  [[noreturn]] void throw_no_response() const;
  APIConnectionError::Reason reason() const;
  [[noreturn]] void throw_too_large() const;

  std::shared_ptr<const Endpoint> endpoint_;
  BodyReader body_;
  RawResponse response_;
  std::size_t header_bytes_ = 0;
  bool header_complete_ = false;
  bool header_too_large_ = false;
  CURLcode code_ = CURLE_OK;
  long system_error_ = 0;   // errno of a failed connect
  long verify_result_ = 0;  // why the certificate was refused, in OpenSSL's terms
  std::array<char, CURL_ERROR_SIZE> error_text_{};
};

}  // namespace vision::detail::http
