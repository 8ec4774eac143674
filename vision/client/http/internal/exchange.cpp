#include "vision/client/http/internal/exchange.hpp"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <utility>

#include "vision/client/http/internal/proxy.hpp"
#include "vision/client/http/internal/tls.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail::http {
namespace {

// Of all header lines together.
constexpr std::size_t max_header_bytes = 64 << 10;
// Chunks of one byte take six bytes each, small TLS records as many; what takes more is
// no response, but chunk extensions or empty blocks without end.
constexpr std::size_t wire_bytes_per_byte = 8;
// libcurl's default; larger buffers measured slower.
constexpr long upload_buffer_bytes = 64 << 10;
// TLS sends records of 16 kB whatever the buffer, and has buffers of its own, so that
// a larger one only costs memory.
constexpr long tls_upload_buffer_bytes = 32 << 10;

// Sets options one after the other up to the first failure, which it keeps.
class Setter {
 public:
  explicit Setter(CURL* easy) : easy_(easy) {}

  template <class T>
  Setter& set(CURLoption option, T value) noexcept {
    if (code == CURLE_OK) code = ::curl_easy_setopt(easy_, option, value);
    return *this;
  }

  CURLcode code = CURLE_OK;

 private:
  CURL* easy_;
};

using Reason = APIConnectionError::Reason;

// What the client was doing when it failed.
const char* activity(Reason reason) {
  switch (reason) {
    case Reason::unreachable: return "cannot reach ";
    case Reason::timed_out: return "timed out connecting to ";
    case Reason::broken_off: return "the connection broke off to ";
    case Reason::other: return "the exchange failed with ";
    default: return "no trusted TLS connection to ";
  }
}

// libcurl compares the host's name itself, after OpenSSL has found nothing wrong:
// only its error text tells that case.
Reason certificate_reason(long verify_result, std::string_view words) {
  if (words.find("target host name") != words.npos) return Reason::wrong_host;
  switch (verify_result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID: return Reason::expired_certificate;
    default: return Reason::untrusted_certificate;
  }
}

// Only OpenSSL's error text tells: "unsupported protocol" when the server offers too
// little, "alert protocol version" when the server refuses what we offer.
bool is_old_protocol(std::string_view words) {
  return words.find("alert protocol version") != words.npos || words.find("unsupported protocol") != words.npos;
}

}  // namespace

Exchange::Exchange(std::shared_ptr<const Endpoint> endpoint, MessagesRequest request)
    : endpoint_(std::move(endpoint)), body_(std::move(request)) {}

CURLcode Exchange::configure(CURL* easy) noexcept {
  Setter options(easy);
  options.set(CURLOPT_URL, endpoint_->url.c_str())
      .set(CURLOPT_PROTOCOLS_STR, "http,https")
      .set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1))
      .set(CURLOPT_FOLLOWLOCATION, 0L)
      .set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
      .set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2))
      .set(CURLOPT_SSL_VERIFYPEER, 1L)
      .set(CURLOPT_SSL_VERIFYHOST, 2L)
      .set(CURLOPT_SSL_CTX_FUNCTION, &read_on_after_failed_write)
      .set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(endpoint_->connect_timeout.count()))
      .set(CURLOPT_TCP_KEEPALIVE, 1L)
      .set(CURLOPT_FRESH_CONNECT, needs_new_connection_ ? 1L : 0L)
      .set(CURLOPT_NOSIGNAL, 1L)
      .set(CURLOPT_QUICK_EXIT, 1L)  // else a cancellation during name resolution blocks the loop
      .set(CURLOPT_UPLOAD_BUFFERSIZE, endpoint_->is_tls ? tls_upload_buffer_bytes : upload_buffer_bytes)
      .set(CURLOPT_HTTPHEADER, endpoint_->headers.get())
      .set(CURLOPT_POST, 1L)
      .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_.size()))
      .set(CURLOPT_READFUNCTION, &Exchange::on_read)
      .set(CURLOPT_READDATA, this)
      .set(CURLOPT_SEEKFUNCTION, &Exchange::on_seek)
      .set(CURLOPT_SEEKDATA, this)
      .set(CURLOPT_HEADERFUNCTION, &Exchange::on_header)
      .set(CURLOPT_HEADERDATA, this)
      .set(CURLOPT_WRITEFUNCTION, &Exchange::on_body)
      .set(CURLOPT_WRITEDATA, this)
      .set(CURLOPT_MAXFILESIZE_LARGE,
           static_cast<curl_off_t>(std::min<std::size_t>(endpoint_->max_response_bytes, PTRDIFF_MAX)))
      .set(CURLOPT_ERRORBUFFER, error_text_.data());
  if (endpoint_->direct) options.set(CURLOPT_NOPROXY, "*");
  if (!endpoint_->ca_file.empty()) {
    // Without the second option the built-in directory would be trusted too.
    options.set(CURLOPT_CAINFO, endpoint_->ca_file.c_str()).set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
  return options.code;
}

void Exchange::finish(CURL* easy, CURLcode code) noexcept {
  code_ = code;
  long status = 0;
  if (easy && header_bytes_ > 0) ::curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  response_.status = static_cast<int>(status);
  if (easy && code == CURLE_COULDNT_CONNECT && system_error_ == 0)
    ::curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &system_error_);
  if (easy) ::curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify_result_);
  // libcurl has a limit of its own for one header line, larger than ours, and reports
  // it as a lack of memory.
  if (code == CURLE_OUT_OF_MEMORY && header_bytes_ > 0 && !header_complete_) header_too_large_ = true;
  // libcurl accepts a header that ends without a blank line.
  if (code == CURLE_OK && !header_complete_) code_ = CURLE_GOT_NOTHING;
  // libcurl 7.88 fails so for a trailer without a colon, when the body is there. JSON that is
  // cut would be found out anyway.
  if (code == CURLE_BAD_FUNCTION_ARGUMENT && header_complete_ && !is_interim_) code_ = CURLE_OK;
}

void Exchange::fail(const char* why) noexcept {
  code_ = CURLE_ABORTED_BY_CALLBACK;
  std::snprintf(error_text_.data(), error_text_.size(), "%s", why);
}

void Exchange::connection_left(CURL* easy, std::uint64_t unsent) noexcept {
  curl_off_t taken_over = 0;
  ::curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &taken_over);
  is_sent_ = unsent == 0 && static_cast<std::uint64_t>(taken_over) >= body_.size();
}

bool Exchange::may_be_sent_again(CURL* easy, CURLcode code) noexcept {
  const bool has_ended = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING;
  long new_connections = 1;
  ::curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &new_connections);
  if (!has_ended || new_connections > 0 || header_bytes_ > 0 || is_sent_) return false;
  body_.rewind();
  error_text_[0] = '\0';
  needs_new_connection_ = true;
  return true;
}

bool Exchange::is_flooded(std::uint64_t bytes) noexcept {
  is_flooded_ = bytes / wire_bytes_per_byte > max_header_bytes + endpoint_->max_response_bytes;
  return is_flooded_;
}

boost::json::value Exchange::result() const {
  // A status that reports a failure is the result, whatever became of the body.
  const bool is_failure = response_.status >= 300;
  if (is_failure && !header_too_large_) throw_error_response(response_, body_.request().model(), endpoint_->key);
  if (header_too_large_ || code_ == CURLE_WRITE_ERROR || code_ == CURLE_FILESIZE_EXCEEDED) throw_too_large();
  if (code_ != CURLE_OK) throw_no_response();
  if (response_.status < 200) throw_error_response(response_, body_.request().model(), endpoint_->key);
  return parse_response(response_, endpoint_->key);
}

void Exchange::throw_too_large() const {
  const std::size_t limit = header_too_large_ ? max_header_bytes : endpoint_->max_response_bytes;
  const char* const part = header_too_large_ ? "the header of the response from "
                           : is_flooded_     ? "the encoding of the response from "
                                             : "the body of the response from ";
  throw APIResponseValidationError(
      part + endpoint_->authority + " is larger than the limit of " +
      std::to_string(is_flooded_ ? wire_bytes_per_byte * (max_header_bytes + limit) : limit) + " bytes");
}

Reason Exchange::reason() const {
  switch (code_) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT: return Reason::unreachable;
    case CURLE_OPERATION_TIMEDOUT: return Reason::timed_out;
    case CURLE_PEER_FAILED_VERIFICATION: return certificate_reason(verify_result_, error_text_.data());
    case CURLE_SSL_CONNECT_ERROR: return is_old_protocol(error_text_.data()) ? Reason::old_protocol : Reason::no_tls;
    case CURLE_SSL_CACERT_BADFILE: return Reason::no_tls;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR: return Reason::broken_off;
    default: return Reason::other;
  }
}

void Exchange::throw_no_response() const {
  std::string detail = error_text_[0] ? error_text_.data() : ::curl_easy_strerror(code_);
  if (code_ == CURLE_SEND_FAIL_REWIND) detail = "it ended before a response came, and the request is not sent twice";
  if (const auto fault = endpoint_->direct ? std::string() : proxy_fault(endpoint_->is_tls); !fault.empty()) {
    detail = ::curl_easy_strerror(code_) + ("; " + fault);
  }
  if (code_ == CURLE_COULDNT_CONNECT && system_error_ != 0)
    detail += " (" + std::system_category().message(static_cast<int>(system_error_)) + ")";
  const Reason why = reason();
  if (why == Reason::old_protocol) detail += ", TLS 1.2 is the oldest version accepted";
  const char* const doing = code_ == CURLE_PARTIAL_FILE ? "the response was cut short by " : activity(why);
  const std::string message =
      doing + endpoint_->authority + ": " + endpoint_->key.scrub_excerpt(text::one_line(detail));
  if (why == Reason::timed_out) throw APITimeoutError(message, why);
  throw APIConnectionError(message, why);
}

bool Exchange::take_header(std::string_view line) {
  header_bytes_ += line.size();
  header_too_large_ = header_bytes_ > max_header_bytes;
  if (header_too_large_) return false;
  if (header_complete_ && !is_interim_) return true;  // a trailer, which may have any name
  if (line.starts_with("HTTP/")) {
    response_ = RawResponse();
    header_complete_ = false;
    const auto blank = line.find(' ');
    is_interim_ = blank != line.npos && line.substr(blank + 1).starts_with('1');
    return true;
  }
  if (text::trim(line).empty()) header_complete_ = true;
  const auto colon = line.find(':');
  if (colon == line.npos) return true;
  const std::string_view name = line.substr(0, colon);
  for (const auto& [wanted, value] :
       {std::pair{"content-encoding", &response_.content_encoding}, std::pair{"request-id", &response_.request_id},
        std::pair{"location", &response_.location}}) {
    if (boost::beast::iequals(name, wanted)) *value = text::trim(line.substr(colon + 1));
  }
  return true;
}

bool Exchange::take_body(std::string_view piece) {
  if (piece.size() > endpoint_->max_response_bytes - response_.body.size()) return false;
  response_.body += piece;
  return true;
}

// The callbacks below can fail only for lack of memory. That ends the process, as an
// exception must not pass through libcurl's C frames.

std::size_t Exchange::on_read(char* out, std::size_t size, std::size_t count, void* self) noexcept {
  return static_cast<Exchange*>(self)->body_.read(out, size * count);
}

// libcurl sends a request again by itself when a kept connection ends before anything of
// the response came. That is wanted as long as the server cannot have read it all: later
// the model may have been paid for.
int Exchange::on_seek(void* self, curl_off_t, int) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  if (exchange.is_sent_) return CURL_SEEKFUNC_CANTSEEK;
  exchange.body_.rewind();
  return CURL_SEEKFUNC_OK;
}

std::size_t Exchange::on_header(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  return static_cast<Exchange*>(self)->take_header({data, size * count}) ? size * count : 0;
}

std::size_t Exchange::on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  return static_cast<Exchange*>(self)->take_body({data, size * count}) ? size * count : 0;
}

}  // namespace vision::detail::http
