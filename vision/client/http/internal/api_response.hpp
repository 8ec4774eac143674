#pragma once

#include <boost/json/value.hpp>
#include <string>

#include "vision/client/http/internal/secret_key.hpp"

namespace vision::detail::http {

/// A response as it came over the wire. A header that did not come is empty.
struct RawResponse {
  int status = 0;
  std::string body;
  std::string content_encoding;
  std::string request_id;
  std::string location;
};

/// Throws the error for a status other than 2xx. Its message is "<what the vendor
/// says> (HTTP 400, invalid_request_error, request req_1)", from the vendor's JSON
/// body or, without one, from the status and the beginning of the body. When the
/// model refuses a member that every request of this library has, it says so.
[[noreturn]] void throw_error_response(const RawResponse& response, const std::string& model, const SecretKey& key);

/// The JSON object of a 2xx response, in one memory resource that it owns, with
/// "[API key]" where a string holds the key. Logs a stop_reason other than
/// "tool_use" at debug level. Throws APIResponseValidationError for anything else.
boost::json::value parse_response(const RawResponse& response, const SecretKey& key);

}  // namespace vision::detail::http
