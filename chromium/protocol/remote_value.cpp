#include "chromium/protocol/remote_value.hpp"

#include <openssl/evp.h>

#include <limits>
#include <string>
#include <utility>

#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/message.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

// Runs the script as eval does: its declarations end with it, and cannot clash with those
// of the page or of an earlier script. By itself the protocol would return a Date as {}
// and refuse an object with a bigint in it. An old, common library breaks the JSON form
// of arrays; "raw" is what the page did not convert.
constexpr std::string_view before_script = "(async () => { const value = await (0, eval)(", after_script = R"js();
  const convert = function (key, converted) {
    const raw = this[key];
    if (Array.isArray(raw)) return raw;
    if (typeof raw !== "bigint") return converted;
    return BigInt.asIntN(64, raw) === raw ? JSON.rawJSON(raw) : null;
  };
  try { return JSON.stringify(value, convert); } catch { return null; }
})())js";

std::string thrown_text(const json::object& details) {
  const json::object& thrown = object_of(details, "exception");
  if (const auto description = text_of(thrown, "description"); !description.empty()) {
    return std::string(description.substr(0, description.find("\n    at ")));
  }
  if (const auto* value = thrown.if_contains("value")) {
    return value->is_string() ? std::string(value->get_string()) : text::to_json(*value);
  }
  if (text_of(thrown, "type") == "undefined") return "undefined";
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

json::object evaluation(std::string_view script) {
  std::string expression(before_script);
  text::append_json_string(expression, script);
  expression += after_script;
  return make_object("expression", std::move(expression), "awaitPromise", true);
}

json::value evaluated_value(const json::object& result) {
  if (result.contains("exceptionDetails")) {
    throw EvaluationError(text::one_line(thrown_text(object_of(result, "exceptionDetails"))));
  }
  const std::string_view text = text_of(object_of(result, "result"), "value");
  return text.empty() ? json::value() : parse_message(text);
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
