#include "vision/text/internal/json_reader.hpp"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>
#include <charconv>
#include <optional>
#include <string>

#include "vision/text/internal/numbers.hpp"

namespace vision::text {
namespace json = boost::json;
using boost::system::error_code;

namespace {

// The parser's events as a value. Boost.JSON's own parser is this with two
// differences: up to version 1.82 it reads many reals of 17 digits one unit off,
// and 0e999 as a NaN; and it has no limit for the members of an object, whose names
// can be chosen so that they cost time with the square of their number.
struct ValueBuilder {
  static constexpr std::size_t max_object_size = json::object::max_size();
  static constexpr std::size_t max_array_size = json::array::max_size();
  static constexpr std::size_t max_key_size = json::string::max_size();
  static constexpr std::size_t max_string_size = json::string::max_size();

  std::size_t max_members;
  json::value_stack stack;

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_array_begin(error_code&) { return true; }
  bool on_array_end(std::size_t size, error_code&) { return stack.push_array(size), true; }
  bool on_object_begin(error_code&) { return true; }
  bool on_object_end(std::size_t size, error_code& error) {
    if (size > max_members) return error = json::error::object_too_large, false;
    return stack.push_object(size), true;
  }
  bool on_key_part(json::string_view part, std::size_t, error_code&) { return stack.push_chars(part), true; }
  bool on_key(json::string_view rest, std::size_t, error_code&) { return stack.push_key(rest), true; }
  bool on_string_part(json::string_view part, std::size_t, error_code&) { return stack.push_chars(part), true; }
  bool on_string(json::string_view rest, std::size_t, error_code&) { return stack.push_string(rest), true; }
  bool on_number_part(json::string_view, error_code&) { return true; }
  bool on_int64(std::int64_t value, json::string_view, error_code&) { return stack.push_int64(value), true; }
  bool on_uint64(std::uint64_t value, json::string_view, error_code&) { return stack.push_uint64(value), true; }
  // The text is the whole number, as the parser is given the whole document.
  bool on_double(double approximate, json::string_view text, error_code&) {
    return stack.push_double(parse_real({text.data(), text.size()}).value_or(approximate)), true;
  }
  bool on_bool(bool value, error_code&) { return stack.push_bool(value), true; }
  bool on_null(error_code&) { return stack.push_null(), true; }
  bool on_comment_part(json::string_view, error_code&) { return true; }
  bool on_comment(json::string_view, error_code&) { return true; }
};

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

json::value read_json(std::string_view text, JsonLimits limits, error_code& error) {
  json::parse_options options;
  options.max_depth = limits.depth;
  json::basic_parser<ValueBuilder> parser(options);
  parser.handler().max_members = limits.members;
  auto& stack = parser.handler().stack;
  stack.reset(json::make_shared_resource<json::monotonic_resource>(text.size() + 1024));
  const std::size_t used = parser.write_some(false, text.data(), text.size(), error);
  if (!error && used < text.size()) error = json::error::extra_data;
  return error ? json::value() : stack.release();
}

// Repaired only after an error, because that copies the text and is hardly ever needed.
json::value read_javascript(std::string_view text, JsonLimits limits, error_code& error) {
  json::value value = read_json(text, limits, error);
  if (!error) return value;
  error_code second;
  value = read_json(without_lone_surrogates(std::string(text)), limits, second);
  if (!second) error.clear();
  return value;
}

}  // namespace vision::text
