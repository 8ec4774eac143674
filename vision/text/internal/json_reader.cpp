#include "vision/text/internal/json_reader.hpp"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/value_stack.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

namespace vision::text {
namespace json = boost::json;
namespace {

using Error = boost::system::error_code;

// Builds the value from what the parser finds.
struct Builder {
  static constexpr std::size_t max_object_size = json::object::max_size();
  static constexpr std::size_t max_array_size = json::array::max_size();
  static constexpr std::size_t max_key_size = json::string::max_size();
  static constexpr std::size_t max_string_size = json::string::max_size();

  json::value_stack stack;

  bool on_document_begin(Error&) { return true; }
  bool on_document_end(Error&) { return true; }
  bool on_object_begin(Error&) { return true; }
  bool on_array_begin(Error&) { return true; }
  bool on_number_part(json::string_view, Error&) { return true; }
  bool on_comment_part(json::string_view, Error&) { return true; }
  bool on_comment(json::string_view, Error&) { return true; }

  bool on_object_end(std::size_t n, Error&) { return stack.push_object(n), true; }
  bool on_array_end(std::size_t n, Error&) { return stack.push_array(n), true; }
  bool on_key_part(json::string_view s, std::size_t, Error&) { return stack.push_chars(s), true; }
  bool on_key(json::string_view s, std::size_t, Error&) { return stack.push_key(s), true; }
  bool on_string_part(json::string_view s, std::size_t, Error&) { return stack.push_chars(s), true; }
  bool on_string(json::string_view s, std::size_t, Error&) { return stack.push_string(s), true; }
  bool on_int64(std::int64_t i, json::string_view, Error&) { return stack.push_int64(i), true; }
  bool on_uint64(std::uint64_t u, json::string_view, Error&) { return stack.push_uint64(u), true; }
  bool on_bool(bool b, Error&) { return stack.push_bool(b), true; }
  bool on_null(Error&) { return stack.push_null(), true; }

  // The parser computes `approximate` with powers of ten, which is up to a unit in
  // the last place off. The text is whole: it is handed over in one piece.
  bool on_double(double approximate, json::string_view digits, Error&) {
    double exact = approximate;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), exact);
    stack.push_double(error == std::errc() ? exact : approximate);
    return true;
  }
};

json::value parse(std::string_view text, Error& error) {
  json::parse_options options;
  options.max_depth = 256;
  json::basic_parser<Builder> parser(options);
  parser.handler().stack.reset();
  const std::size_t used = parser.write_some(false, text.data(), text.size(), error);
  if (!error && used < text.size()) error = json::error::extra_data;
  return error ? json::value() : parser.handler().stack.release();
}

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

json::value read_json(std::string_view json, boost::system::error_code& error) {
  error.clear();
  auto value = parse(json, error);
  if (!error) return value;
  Error second;  // the first error is the one to tell of: its place is in the text as it was given
  value = parse(without_lone_surrogates(std::string(json)), second);
  if (!second) error.clear();
  return value;
}

}  // namespace vision::text
