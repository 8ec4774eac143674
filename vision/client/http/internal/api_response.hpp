#pragma once

#include <boost/json/value.hpp>
#include <string>

#include "vision/client/http/internal/secret_key.hpp"

namespace vision::detail::http {

/// A response as it came over the wire. Headers that did not come are empty.
struct RawResponse {
  int status = 0;
  std::string body;
  std::string content_encoding;
  std::string request_id;
  std::string location;
};

/// Throws the error of a status other than 2xx. Its message is "<what the vendor
/// says> (HTTP 400, invalid_request_error, request req_1)", from the vendor's JSON
/// body or, without one, from the status and the beginning of the body. A refusal
/// of what every request of this library holds names the cause.
[[noreturn]] void throw_error_response(const RawResponse& response, const std::string& model, const SecretKey& key);

/// The JSON object of a 2xx response, in one memory resource that it owns, without
/// the API key should it be in there. Throws APIResponseValidationError for
/// anything else.
boost::json::value parse_response(const RawResponse& response, const SecretKey& key);

}  // namespace vision::detail::http
