#pragma once

#include <curl/curl.h>

#include <array>
#include <cstdint>
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

  /// Records that the transfer was given up, with the reason.
  void fail(const char* why) noexcept;

  /// Records why no socket could be opened, as errno, which libcurl does not tell.
  void socket_refused(int error) noexcept { system_error_ = error; }

  /// To be called when libcurl lets go of the connection: how many bytes of what it has
  /// taken over the kernel has not sent yet.
  void connection_left(CURL* easy, std::uint64_t unsent) noexcept;

  /// Whether a transfer that ended with `code` is to be configured and run again, at once
  /// and on a new connection: it was on a kept connection that ended before anything of a
  /// response came and before all of the request had left this machine. The server cannot
  /// have acted on it, and had most likely closed the connection already.
  bool may_be_sent_again(CURL* easy, CURLcode code) noexcept;

  /// Whether so many bytes on the wire are more than any response that is accepted takes.
  bool is_flooded(std::uint64_t bytes) noexcept;

  /// The response's JSON object. Throws what HttpMessagesClient::create throws.
  boost::json::value result() const;

 private:
  static std::size_t on_read(char* out, std::size_t size, std::size_t count, void* self) noexcept;
  static int on_seek(void* self, curl_off_t offset, int origin) noexcept;
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
  bool is_interim_ = false;  // the header that comes or came is of a 1xx response
  bool header_complete_ = false;
  bool header_too_large_ = false;
  bool is_flooded_ = false;
  bool is_sent_ = true;  // all of the request has left this machine, for all that is known
  bool needs_new_connection_ = false;
  CURLcode code_ = CURLE_OK;
  long system_error_ = 0;   // errno of a failed connect or socket
  long verify_result_ = 0;  // why the certificate was refused, in OpenSSL's terms
  std::array<char, CURL_ERROR_SIZE> error_text_{};
};

}  // namespace vision::detail::http
