#include "chromium/protocol/message.hpp"

#include <boost/json/parse.hpp>
#include <charconv>

#include "chromium/errors.hpp"
#include "vision/text/internal/json_limits.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

// What a page may make us allocate: its values come through here, and a hostile page
// chooses them. Pictures, which are larger, do not.
constexpr std::size_t max_parsed_size = 8u << 20;
constexpr std::size_t max_members = 1000;
constexpr std::size_t max_depth = 256;

constexpr std::size_t escape_size = 6;  // \uXXXX, one UTF-16 unit in JSON

std::optional<unsigned> escaped_unit(std::string_view text, std::size_t at) {
  if (at + escape_size > text.size() || text[at] != '\\' || text[at + 1] != 'u') return std::nullopt;
  unsigned unit = 0;
  const char* digits = text.data() + at + 2;
  const auto [end, error] = std::from_chars(digits, digits + 4, unit, 16);
  if (error != std::errc() || end != digits + 4) return std::nullopt;
  return unit;
}

bool is_high(std::optional<unsigned> unit) {
  return unit && *unit >= 0xd800 && *unit < 0xdc00;
}
bool is_low(std::optional<unsigned> unit) {
  return unit && *unit >= 0xdc00 && *unit < 0xe000;
}

std::string without_lone_surrogates(std::string text) {
  for (std::size_t at = text.find('\\'); at != std::string::npos; at = text.find('\\', at)) {
    const auto unit = escaped_unit(text, at);
    if (is_high(unit) && is_low(escaped_unit(text, at + escape_size))) {
      at += 2 * escape_size;
    } else if (is_high(unit) || is_low(unit)) {
      text.replace(at, escape_size, "\\ufffd");
      at += escape_size;
    } else {
      at += 2;  // the backslash and what it escapes
    }
  }
  return text;
}

}  // namespace

json::value parse_message(std::string_view text) {
  if (text.size() > max_parsed_size) throw BrowserError("the browser sent a message larger than 8 MiB");
  if (text::has_crowded_object(text, max_members)) {
    throw BrowserError("the browser sent an object with more than 1000 members");
  }
  json::parse_options options;
  options.max_depth = max_depth;
  boost::system::error_code error;
  json::value out = json::parse(text, error, {}, options);
  // Only then, because the repair copies the text and is hardly ever needed.
  if (error) out = json::parse(without_lone_surrogates(std::string(text)), error, {}, options);
  if (error) throw BrowserError("unreadable message from the browser: " + error.message());
  return out;
}

std::optional<std::uint64_t> leading_id(std::string_view text) {
  constexpr std::string_view start = "{\"id\":";
  std::uint64_t id = 0;
  if (!text.starts_with(start)) return std::nullopt;
  const auto [end, error] = std::from_chars(text.data() + start.size(), text.data() + text.size(), id);
  if (error != std::errc()) return std::nullopt;
  return id;
}

}  // namespace vision::chromium
