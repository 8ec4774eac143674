// Whatever a peer answers, the error is a short harmless line with the status and
// without the key, and an accepted body is the JSON object that it holds.
#include "fuzz/input.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/internal/api_response.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::fuzz {
namespace {

constexpr std::string_view api_key = "sk-fuzz-0123456789abcdef";

// A peer may echo the key wherever it likes: the byte 1 stands for it.
std::string echo(std::string_view text) {
  std::string out;
  for (const char c : text) c == 1 ? out.append(api_key) : out.append(1, c);
  return out;
}

bool shows_key(std::string_view text) {
  return text.find(api_key) != text.npos;
}

void check_text(std::string_view text) {
  require(text::one_line(text) == text, "one harmless line");
  require(!shows_key(text), "the key is not shown");
  require(text.size() < 20'000, "short, however long the body is");
}

// For a comparison: Boost.JSON reads reals up to a unit off, and 0e999 as a NaN.
void drop_reals(boost::json::value& value) {
  if (value.is_double()) value = 0;
  if (auto* array = value.if_array()) std::for_each(array->begin(), array->end(), drop_reals);
  if (auto* object = value.if_object()) {
    for (auto& member : *object) drop_reals(member.value());
  }
}

}  // namespace

void check(Input input) {
  static const detail::http::SecretKey key(api_key);
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
    boost::json::value value = detail::http::parse_response(response, key);
    boost::json::parse_options options;
    options.max_depth = 64;
    boost::json::value given = boost::json::parse(response.body, {}, options);
    drop_reals(value);
    drop_reals(given);
    const std::string told = text::to_json(given);
    require(value.is_object() && (text::to_json(value) == told || shows_key(told)), "the body's JSON object");
  } catch (const APIResponseValidationError& e) {
    check_text(e.what());
  }
}

}  // namespace vision::fuzz
