// Whatever a peer answers, the error is a short harmless line with the status and
// without the key, and an accepted body is the JSON object that it holds.
#include <boost/algorithm/string/case_conv.hpp>

#include "fuzz/input.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/internal/api_response.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::fuzz {
namespace {

// The key, its base64 text, its hexadecimal digits, and its base64 text when it stands
// after one and after two other bytes.
constexpr std::string_view key_forms[] = {"sk-fuzz-0123456789abcdef", "c2stZnV6ei0wMTIzNDU2Nzg5YWJjZGVm",
                                          "736b2d66757a7a2d30313233343536373839616263646566",
                                          "NrLWZ1enotMDEyMzQ1Njc4OWFiY2RlZ", "zay1mdXp6LTAxMjM0NTY3ODlhYmNkZW"};

// A peer may echo the key wherever it likes: the bytes 1 to 5 stand for its forms.
std::string echo(std::string_view text) {
  std::string out;
  for (const char c : text) c >= 1 && c <= 5 ? out.append(key_forms[c - 1]) : out.append(1, c);
  return out;
}

// Whole, or the beginning of it that a text which broke off may show.
bool shows_key(std::string_view text, std::size_t length = std::string_view::npos) {
  return std::any_of(std::begin(key_forms), std::end(key_forms),
                     [&](std::string_view form) { return text.find(form.substr(0, length)) != text.npos; });
}

void check_text(std::string_view text) {
  require(text::one_line(text) == text, "one harmless line");
  require(!shows_key(text), "the key is not shown");
  require(text.size() < 20'000, "short, however long the body is");
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
    require(value.is_object() && !shows_key(text::to_json(value)), "an object without the key");
    boost::json::parse_options options;
    options.max_depth = 64;
    const auto given = boost::json::parse(response.body, {}, options);
    // Compared as texts: Boost.JSON reads 0e999 as a NaN. Hexadecimal digits may be capitals.
    const std::string told = text::to_json(given);
    const bool has_part = shows_key(told, 8) || shows_key(boost::algorithm::to_lower_copy(told), 8);
    require(text::to_json(value) == told || has_part, "the body's JSON object");
  } catch (const APIResponseValidationError& e) {
    check_text(e.what());
  }
}

}  // namespace vision::fuzz
