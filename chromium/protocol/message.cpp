#include "chromium/protocol/message.hpp"

#include <boost/json/parse.hpp>
#include <charconv>

#include "chromium/errors.hpp"
#include "vision/text/internal/json_limits.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

std::optional<unsigned> escaped_unit(std::string_view text, std::size_t at) {
  if (at + 6 > text.size() || text[at] != '\\' || text[at + 1] != 'u') return std::nullopt;
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
    if (is_high(unit) && is_low(escaped_unit(text, at + 6))) {
      at += 12;
    } else if (is_high(unit) || is_low(unit)) {
      text.replace(at, 6, "\\ufffd");
      at += 6;
    } else {
      at += 2;  // the backslash and what it escapes
    }
  }
  return text;
}

}  // namespace

json::value parse_message(std::string_view text) {
  constexpr std::size_t max_size = 8u << 20, max_members = 1000;
  if (text.size() > max_size) throw BrowserError("the browser sent a message above 8 MiB");
  if (text::has_crowded_object(text, max_members)) {
    throw BrowserError("the browser sent an object of more than 1000 members");
  }
  json::parse_options options;
  options.max_depth = 256;
  boost::system::error_code error;
  json::value out = json::parse(text, error, {}, options);
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
