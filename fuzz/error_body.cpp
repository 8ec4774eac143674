// Whatever a peer answers, the error is a short harmless line with the status and
// without the key, and an accepted body is the JSON object that it holds.
#include <cmath>

#include "fuzz/input.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/internal/api_response.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::fuzz {
namespace {

// The key, and as a JSON text may have it.
constexpr std::string_view key_forms[] = {"sk-fuzz/0123456789abcdef", "sk-fuzz\\/0123456789abcdef"};

// A peer may echo the key wherever it likes: the bytes 1 and 2 stand for its forms.
std::string echo(std::string_view text) {
  std::string out;
  for (const char c : text) c == 1 || c == 2 ? out.append(key_forms[c - 1]) : out.append(1, c);
  return out;
}

bool shows_key(std::string_view text) {
  return std::any_of(std::begin(key_forms), std::end(key_forms),
                     [&](std::string_view form) { return text.find(form) != text.npos; });
}

void check_text(std::string_view text) {
  require(text::one_line(text) == text, "one harmless line");
  require(!shows_key(text), "the key is not shown");
  require(text.size() < 20'000, "short, however long the body is");
}

// Boost.JSON reads reals up to a unit off, and 0e999 as a NaN.
bool is_near(double read, double given) {
  return std::isnan(given) || read == given || std::abs(read - given) <= 1e-14 * std::abs(given) ||
         std::abs(given) < 1e-300 || std::abs(given) > 1e300;
}

bool is_same(const boost::json::value& read, const boost::json::value& given) {
  if (read.kind() != given.kind()) return false;
  if (read.is_double()) return is_near(read.get_double(), given.get_double());
  if (read.is_string()) return !shows_key(read.get_string()) && (read == given || shows_key(given.get_string()));
  if (const auto* array = read.if_array()) {
    return std::equal(array->begin(), array->end(), given.get_array().begin(), given.get_array().end(), is_same);
  }
  const auto* object = read.if_object();
  if (!object) return read == given;
  const auto is_same_member = [](const auto& a, const auto& b) {
    return a.key() == b.key() && is_same(a.value(), b.value());
  };
  const auto& other = given.get_object();
  return std::equal(object->begin(), object->end(), other.begin(), other.end(), is_same_member);
}

}  // namespace

void check(Input input) {
  static const detail::http::SecretKey key(key_forms[0]);
  detail::http::RawResponse response;
  response.status = input.number<std::uint16_t>() % 1000;
  for (auto* text : {&response.content_encoding, &response.request_id, &response.location})
    *text = echo(input.until('\n'));
  response.body = echo(input);
  try {
    detail::http::throw_error_response(response, "some-model", key);
  } catch (const APIStatusError& e) {
    const std::string told = e.what();
    for (const auto& text : {told, e.type(), e.request_id()}) check_text(text);
    require(e.status() == response.status, "the status is kept");
    require(told.find("(HTTP " + std::to_string(response.status)) != told.npos, "the status is told");
  }
  try {
    const boost::json::value value = detail::http::parse_response(response, key);
    boost::json::parse_options options;
    options.max_depth = 64;
    require(value.is_object() && is_same(value, boost::json::parse(response.body, {}, options)),
            "the body's JSON object, but for the key");
  } catch (const APIResponseValidationError& e) {
    check_text(e.what());
  }
}

}  // namespace vision::fuzz
