#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "vision/text/named_error.hpp"

/// @file
/// What a call of the Messages API can fail with. The message never holds the
/// API key or the request body. `kind_name()` is the name of the class.
namespace vision {

/// The base class; itself an error of no kind below.
class APIError : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "APIError"; }
};

/// No response: the endpoint was not reached, or the exchange broke off.
class APIConnectionError : public APIError {
 public:
  /// What stood in the way, where that is known.
  enum class Reason {
    other,
    unreachable,            ///< the name does not resolve, or the connection is refused
    timed_out,              ///< connecting took too long
    broken_off,             ///< the connection or the response ended too early
    untrusted_certificate,  ///< self-signed, or from an authority that is not trusted
    expired_certificate,    ///< no longer valid, or not yet
    wrong_host,             ///< a certificate for another host
    old_protocol,           ///< nothing newer than TLS 1.1
    no_tls,                 ///< any other failure to set TLS up
  };

  /// `message` becomes what().
  explicit APIConnectionError(const std::string& message, Reason reason = Reason::other)
      : APIError(message), reason_(reason) {}
  const char* kind_name() const noexcept override { return "APIConnectionError"; }
  /// The reason given.
  Reason reason() const noexcept { return reason_; }

 private:
  Reason reason_;
};

/// The endpoint could not be reached, or fell silent, for too long.
class APITimeoutError : public APIConnectionError {
 public:
  using APIConnectionError::APIConnectionError;
  const char* kind_name() const noexcept override { return "APITimeoutError"; }
};

/// A response that is not a Messages API response: not JSON, too large,
/// nested too deep, not an object.
class APIResponseValidationError : public APIError {
 public:
  using APIError::APIError;
  const char* kind_name() const noexcept override { return "APIResponseValidationError"; }
};

/// A response whose HTTP status says that the call failed.
class APIStatusError : public APIError {
 public:
  /// What is known of the response besides its message.
  struct Details {
    int status = 0;          ///< the HTTP status
    std::string type;        ///< the vendor's error type, for example "overloaded_error"; may be empty
    std::string request_id;  ///< the vendor's identifier of the request; may be empty
  };

  /// `message` becomes what(). throw_status_error() picks the class by the status.
  APIStatusError(const std::string& message, Details details) : APIError(message), details_(std::move(details)) {}
  const char* kind_name() const noexcept override { return "APIStatusError"; }

  ///@{
  /// The members of the Details given.
  int status() const noexcept { return details_.status; }
  const std::string& type() const noexcept { return details_.type; }
  const std::string& request_id() const noexcept { return details_.request_id; }
  ///@}

 private:
  Details details_;
};

// clang-format off
/// Defines the error class of one status. Not for users: undefined below.
#define VISION_STATUS_ERROR(name)                                             \
  class name : public APIStatusError {                                        \
   public:                                                                    \
    using APIStatusError::APIStatusError;                                     \
    const char* kind_name() const noexcept override { return #name; }         \
  }
// clang-format on

VISION_STATUS_ERROR(BadRequestError);           ///< 400
VISION_STATUS_ERROR(AuthenticationError);       ///< 401
VISION_STATUS_ERROR(PermissionDeniedError);     ///< 403
VISION_STATUS_ERROR(NotFoundError);             ///< 404
VISION_STATUS_ERROR(ConflictError);             ///< 409
VISION_STATUS_ERROR(RequestTooLargeError);      ///< 413
VISION_STATUS_ERROR(UnprocessableEntityError);  ///< 422
VISION_STATUS_ERROR(RateLimitError);            ///< 429
VISION_STATUS_ERROR(InternalServerError);       ///< 500 and above

#undef VISION_STATUS_ERROR

/// Throws the error class of `details.status`; APIStatusError itself for a
/// status without one.
[[noreturn]] void throw_status_error(const std::string& message, APIStatusError::Details details);

/// Whether an error is one that the ask call retries: APIConnectionError,
/// RateLimitError, InternalServerError or a class derived from one of them.
bool is_transport_error(const std::exception_ptr& error) noexcept;

}  // namespace vision
