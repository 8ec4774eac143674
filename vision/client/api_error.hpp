#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "vision/text/named_error.hpp"

/// @file
/// The errors of a Messages API call. HttpMessagesClient throws them, and so should
/// every MessagesClient: the ask call retries APIConnectionError, RateLimitError and
/// InternalServerError (and classes derived from them) once, and no other error. The
/// resulting declare_failure's reason is "transport error: " or "unexpected error: ",
/// the name of the class (`kind_name()`), ": " and the message, so a message must not
/// hold secrets.
namespace vision {

/// The base class; thrown directly for errors that fit no subclass.
class APIError : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "APIError"; }
};

/// No response: the endpoint was not reached, or the exchange broke off. Retried.
class APIConnectionError : public APIError {
 public:
  /// The cause, where it is known.
  enum class Reason {
    other,
    unreachable,            ///< the name does not resolve, or nothing listens there
    timed_out,              ///< connecting took too long
    broken_off,             ///< the connection or the response ended too early
    untrusted_certificate,  ///< self-signed, or from an authority that is not trusted
    expired_certificate,    ///< no longer valid, or not yet valid
    wrong_host,             ///< the certificate is for another host
    old_protocol,           ///< the endpoint offers nothing newer than TLS 1.1
    no_tls,                 ///< TLS cannot be set up for another reason
  };

  /// `message` becomes what().
  explicit APIConnectionError(const std::string& message, Reason reason = Reason::other)
      : APIError(message), reason_(reason) {}
  const char* kind_name() const noexcept override { return "APIConnectionError"; }
  /// The reason passed to the constructor.
  Reason reason() const noexcept { return reason_; }

 private:
  Reason reason_;
};

/// The endpoint could not be reached in time, or stopped answering. Retried.
class APITimeoutError : public APIConnectionError {
 public:
  using APIConnectionError::APIConnectionError;
  const char* kind_name() const noexcept override { return "APITimeoutError"; }
};

/// A response arrived that is not one of the Messages API: not JSON, too large,
/// nested too deep, not an object.
class APIResponseValidationError : public APIError {
 public:
  using APIError::APIError;
  const char* kind_name() const noexcept override { return "APIResponseValidationError"; }
};

/// A response whose HTTP status reports a failure.
class APIStatusError : public APIError {
 public:
  /// What is known about the response besides its message.
  struct Details {
    int status = 0;          ///< the HTTP status
    std::string type;        ///< the vendor's error type, for example "overloaded_error"; may be empty
    std::string request_id;  ///< the vendor's identifier of the request; may be empty
  };

  /// `message` becomes what(). Prefer throw_status_error(), which picks the class.
  APIStatusError(const std::string& message, Details details) : APIError(message), details_(std::move(details)) {}
  const char* kind_name() const noexcept override { return "APIStatusError"; }

  ///@{
  /// The members of the Details passed to the constructor.
  int status() const noexcept { return details_.status; }
  const std::string& type() const noexcept { return details_.type; }
  const std::string& request_id() const noexcept { return details_.request_id; }
  ///@}

 private:
  Details details_;
};

// clang-format off
/// Defines the error class of one status. Undefined below.
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
VISION_STATUS_ERROR(RateLimitError);            ///< 429; retried
VISION_STATUS_ERROR(InternalServerError);       ///< 500 and above; retried

#undef VISION_STATUS_ERROR

/// Throws the error class of `details.status`: one of the above, or APIStatusError
/// itself for a status that has none (402, for example).
[[noreturn]] void throw_status_error(const std::string& message, APIStatusError::Details details);

/// Whether the ask call retries the error: it is an APIConnectionError, a
/// RateLimitError, an InternalServerError or derived from one of them. `error` must
/// not be null.
bool is_transport_error(const std::exception_ptr& error) noexcept;

}  // namespace vision
