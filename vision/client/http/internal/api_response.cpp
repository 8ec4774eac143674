#include "vision/client/http/internal/api_response.hpp"

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/status.hpp>
#include <string_view>

#include "vision/client/api_error.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/json_reader.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail::http {
namespace json = boost::json;
namespace {

constexpr text::JsonLimits json_limits = {64, 256};
constexpr std::size_t excerpt_code_points = 200;
constexpr std::size_t message_code_points = 1000;

// Text from outside in the form in which errors quote it. The key is removed first:
// cut short by us, it would no longer be found.
std::string quote(const SecretKey& key, std::string_view text, std::size_t code_points) {
  const std::string clean = key.scrub_excerpt(text::trim(text));
  const std::string_view start = text::first_code_points(clean, code_points);
  return text::one_line(start) + (start.size() < clean.size() ? "..." : "");
}

bool is_plain(const RawResponse& response) {
  return response.content_encoding.empty() || boost::beast::iequals(response.content_encoding, "identity");
}

std::string text_member(const json::value& value, std::string_view name) {
  const auto* object = value.if_object();
  const auto* member = object ? object->if_contains(name) : nullptr;
  const auto* text = member ? member->if_string() : nullptr;
  return text ? std::string(*text) : std::string();
}

// The vendor's error body: {"type": "error", "error": {"type", "message"}, "request_id"}.
struct VendorError {
  std::string message, type, request_id;
};

VendorError read_vendor_error(const RawResponse& response) {
  VendorError vendor;
  if (is_plain(response)) {
    boost::system::error_code error;
    const json::value body = text::read_javascript(response.body, json_limits, error);
    const auto* object = body.if_object();
    if (const auto* inner = object ? object->if_contains("error") : nullptr) {
      vendor.message = text_member(*inner, "message");
      vendor.type = text_member(*inner, "type");
      vendor.request_id = text_member(body, "request_id");
    }
  }
  if (vendor.request_id.empty()) vendor.request_id = response.request_id;
  return vendor;
}

std::string status_text(int status) {
  if (status == 529) return "Overloaded";
  const auto reason =
      boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(static_cast<unsigned>(status)));
  return reason.empty() || reason[0] == '<' ? "unknown status" : std::string(reason);
}

// What the status says by itself, for a body that is not the vendor's.
std::string own_message(const RawResponse& response, const SecretKey& key) {
  std::string message = status_text(response.status);
  if (!response.location.empty()) {
    // The query may hold a token, and so may what precedes an '@'.
    const std::string_view shown = std::string_view(response.location).substr(0, response.location.find_first_of("?#"));
    const bool is_secret = response.location.find('@') != std::string::npos;
    message += ": the endpoint redirects to " +
               (is_secret ? "a URL with credentials" : quote(key, shown, excerpt_code_points)) +
               ", which is not followed; correct the base URL";
  } else if (is_plain(response) && !text::trim(response.body).empty()) {
    message += ": " + quote(key, response.body, excerpt_code_points);
  }
  return message;
}

// Newer models refuse members that every request of this library holds.
std::string refusal_hint(int status, std::string_view message, const std::string& model) {
  const bool tool_choice = message.find("tool_choice") != message.npos,
             thinking = message.find("thinking") != message.npos;
  if (status != 400 || (!tool_choice && !thinking)) return {};
  const char* const cause = !thinking      ? "a forced tool choice"
                            : !tool_choice ? "thinking switched off"
                                           : "a forced tool choice with thinking switched off";
  return ". The configured model \"" + text::one_line(model) + "\" refuses this client's fixed request (" + cause +
         "); name a model that accepts it in the model registry";
}

[[noreturn]] void reject(const std::string& what, const RawResponse& response, const SecretKey& key) {
  const std::string id = quote(key, response.request_id, excerpt_code_points);
  throw APIResponseValidationError(what + " (HTTP " + std::to_string(response.status) +
                                   (id.empty() ? "" : ", request " + id) + ")");
}

// The result of the call says only that the tool call is missing or unreadable; a
// refusal and an answer cut at max_tokens look the same there.
void log_stop_reason(const json::value& value, const RawResponse& response, const SecretKey& key) {
  const std::string reason = text_member(value, "stop_reason");
  if (reason.empty() || reason == "tool_use") return;
  const std::string id = quote(key, response.request_id, excerpt_code_points);
  log::line(spdlog::level::debug, "vision: the answer ended with stop_reason %s (request %s)",
            quote(key, reason, excerpt_code_points), id.empty() ? "unknown" : id);
}

}  // namespace

void throw_error_response(const RawResponse& response, const std::string& model, const SecretKey& key) {
  const VendorError vendor = read_vendor_error(response);
  APIStatusError::Details details;
  details.status = response.status;
  details.type = quote(key, vendor.type, excerpt_code_points);
  details.request_id = quote(key, vendor.request_id, excerpt_code_points);
  std::string message =
      vendor.message.empty() ? own_message(response, key) : quote(key, vendor.message, message_code_points);
  message += " (HTTP " + std::to_string(response.status);
  if (!details.type.empty()) message += ", " + details.type;
  if (!details.request_id.empty()) message += ", request " + details.request_id;
  message += ")" + refusal_hint(response.status, vendor.message, model);
  throw_status_error(message, std::move(details));
}

json::value parse_response(const RawResponse& response, const SecretKey& key) {
  if (!is_plain(response)) {
    reject("the response is encoded as \"" + quote(key, response.content_encoding, excerpt_code_points) +
               "\", though only identity was accepted",
           response, key);
  }
  if (text::trim(response.body).empty()) reject("the response is empty", response, key);
  boost::system::error_code error;
  json::value value = text::read_javascript(response.body, json_limits, error);
  if (error == json::error::object_too_large) {
    reject("the response holds an object of more than " + std::to_string(json_limits.members) + " members", response,
           key);
  }
  if (error == json::error::too_deep) {
    reject("the response nests deeper than " + std::to_string(json_limits.depth) + " levels", response, key);
  }
  if (error == json::error::incomplete) {
    reject("the response is incomplete JSON, ending after " + std::to_string(response.body.size()) + " bytes", response,
           key);
  }
  if (value.is_object()) {
    key.scrub(value);
    log_stop_reason(value, response, key);
    return value;
  }
  const std::string start = ": " + quote(key, response.body, excerpt_code_points);
  if (error) reject("the response is not JSON (" + error.message() + ")" + start, response, key);
  reject("the response is not a JSON object" + start, response, key);
}

}  // namespace vision::detail::http
