#include "vision/client/http/internal/json_reader.hpp"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>

#include "vision/text/internal/numbers.hpp"

namespace vision::detail::http {
namespace json = boost::json;
using boost::system::error_code;

namespace {

// The parser's events as a value. Boost.JSON's own parser is this with two
// differences: up to version 1.82 it reads many reals of 17 digits one unit off,
// and 0e999 as a NaN; and it has no limit for the members of an object, whose names
// can be chosen so that they cost time with the square of their number.
struct ValueBuilder {
  static constexpr std::size_t max_object_size = max_json_members;
  static constexpr std::size_t max_array_size = json::array::max_size();
  static constexpr std::size_t max_key_size = json::string::max_size();
  static constexpr std::size_t max_string_size = json::string::max_size();

  json::value_stack stack;

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_array_begin(error_code&) { return true; }
  bool on_array_end(std::size_t size, error_code&) { return stack.push_array(size), true; }
  bool on_object_begin(error_code&) { return true; }
  bool on_object_end(std::size_t size, error_code&) { return stack.push_object(size), true; }
  bool on_key_part(json::string_view part, std::size_t, error_code&) { return stack.push_chars(part), true; }
  bool on_key(json::string_view rest, std::size_t, error_code&) { return stack.push_key(rest), true; }
  bool on_string_part(json::string_view part, std::size_t, error_code&) { return stack.push_chars(part), true; }
  bool on_string(json::string_view rest, std::size_t, error_code&) { return stack.push_string(rest), true; }
  bool on_number_part(json::string_view, error_code&) { return true; }
  bool on_int64(std::int64_t value, json::string_view, error_code&) { return stack.push_int64(value), true; }
  bool on_uint64(std::uint64_t value, json::string_view, error_code&) { return stack.push_uint64(value), true; }
  // The text is the whole number, as the parser is given the whole document.
  bool on_double(double approximate, json::string_view text, error_code&) {
    return stack.push_double(text::parse_real({text.data(), text.size()}).value_or(approximate)), true;
  }
  bool on_bool(bool value, error_code&) { return stack.push_bool(value), true; }
  bool on_null(error_code&) { return stack.push_null(), true; }
  bool on_comment_part(json::string_view, error_code&) { return true; }
  bool on_comment(json::string_view, error_code&) { return true; }
};

}  // namespace

json::value read_json(std::string_view text, error_code& error) {
  json::parse_options options;
  options.max_depth = max_json_depth;
  json::basic_parser<ValueBuilder> parser(options);
  auto& stack = parser.handler().stack;
  stack.reset(json::make_shared_resource<json::monotonic_resource>(text.size() + 1024));
  const std::size_t used = parser.write_some(false, text.data(), text.size(), error);
  if (!error && used < text.size()) error = json::error::extra_data;
  return error ? json::value() : stack.release();
}

}  // namespace vision::detail::http
