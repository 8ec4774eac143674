#include "chromium/protocol/remote_value.hpp"

#include <openssl/evp.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "chromium/protocol/json_object.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

// "-0", "NaN", "Infinity" and bigints such as "12n" travel as text.
json::value unserializable(std::string_view text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  const bool whole = error == std::errc() && (stop == end || std::string_view(stop, end) == "n");
  return whole ? json::value(number) : json::value();
}

std::string thrown_text(const json::object& details) {
  const json::object& thrown = object_of(details, "exception");
  if (const auto description = text_of(thrown, "description"); !description.empty()) {
    return std::string(description.substr(0, description.find("\n    at ")));
  }
  if (const auto* value = thrown.if_contains("value")) return text::plain_text(*value);
  return std::string(text_of(details, "text"));
}

// Writes the decoded bytes to `out` and returns their number. `out` may be at or
// before the start of the text: the decoder reads four characters before it writes
// their three bytes.
std::size_t decode(std::string_view text, char* out) {
  std::size_t padding = 0;  // the decoder counts it as bytes
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  constexpr std::size_t max_text = std::numeric_limits<int>::max();  // what the decoder takes
  const int size =
      text.size() % 4 != 0 || text.size() > max_text
          ? -1
          : ::EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out),
                              reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (size < 0) throw BrowserError("the browser's picture is not valid base64");
  return static_cast<std::size_t>(size) - padding;
}

}  // namespace

json::value evaluated_value(json::object result) {
  if (result.contains("exceptionDetails"))
    throw EvaluationError(text::one_line(thrown_text(object_of(result, "exceptionDetails"))));
  auto* remote = result.if_contains("result");
  if (!remote || !remote->is_object()) return {};
  json::object& object = remote->get_object();
  if (text_of(object, "type") == "function") return {};
  if (auto* value = object.if_contains("value")) return std::move(*value);
  return unserializable(text_of(object, "unserializableValue"));
}

// The protocol gives both the same code as other refusals, so the text decides.
bool has_no_json_form(const ProtocolError& error) {
  return error.browser_message() == "Object reference chain is too long" ||
         error.browser_message() == "Object couldn't be returned by value";
}

Bytes decode_base64(std::string_view text) {
  std::string out(text.size() / 4 * 3, '\0');
  out.resize(decode(text, out.data()));
  return Bytes(std::move(out));
}

std::optional<Bytes> picture_in_reply(std::string& reply) {
  constexpr std::string_view start = ",\"result\":{\"data\":\"", end = "\"}";
  const std::size_t before = reply.find(',');
  if (before == reply.npos || reply.compare(before, start.size(), start) != 0) return std::nullopt;
  const std::size_t first = before + start.size(), last = reply.find('"', first);
  if (last == reply.npos || reply.compare(last, end.size(), end) != 0) return std::nullopt;
  reply.resize(decode(std::string_view(reply).substr(first, last - first), reply.data()));
  // Decoding leaves a quarter of the memory unused; more than that is worth a copy.
  if (reply.capacity() / 3 * 2 > reply.size()) reply.shrink_to_fit();
  return Bytes(std::move(reply));
}

}  // namespace vision::chromium
