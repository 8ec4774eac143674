// Whatever a peer answers, the error is a short harmless line with the status and
// without the key, and an accepted body is the JSON object that it holds.
#include <algorithm>
#include <boost/json/parse.hpp>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/api_response.hpp"
#include "vision/text/json_text.hpp"
#include "vision/text/utf8.hpp"

namespace {

using namespace vision;
using fuzz::require;

constexpr std::string_view key_text = "sk-fuzz-0123456789abcdef";

constexpr std::string_view key_forms[] = {key_text, "c2stZnV6ei0wMTIzNDU2Nzg5YWJjZGVm",
                                          "736b2d66757a7a2d30313233343536373839616263646566"};

// A peer may echo the key wherever it likes: 0x01 stands for it, 0x02 for its base64
// text, 0x03 for its hexadecimal digits.
std::string echo(std::string_view text) {
  std::string out;
  for (const char c : text) c >= 1 && c <= 3 ? out.append(key_forms[c - 1]) : out.append(1, c);
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

void check_error(const http::RawResponse& response, const http::SecretKey& key) {
  try {
    http::throw_error_response(response, "some-model", key);
  } catch (const APIStatusError& e) {
    check_text(e.what());
    check_text(e.type());
    check_text(e.request_id());
    require(e.status() == response.status, "the status is kept");
    require(std::string_view(e.what()).find("(HTTP " + std::to_string(response.status)) != std::string_view::npos,
            "the status is told");
  }
}

void check_success(const http::RawResponse& response, const http::SecretKey& key) {
  try {
    const boost::json::value value = http::parse_response(response, key);
    boost::json::parse_options options;
    options.max_depth = 64;
    require(value.is_object(), "an object");
    require(!shows_key(text::to_json(value)), "the key is nowhere in it");
    const bool no_echo = response.body.find("sk-") == std::string::npos && !shows_key(response.body);
    if (no_echo) require(value == boost::json::parse(response.body, {}, options), "the body's JSON object");
  } catch (const APIResponseValidationError& e) {
    check_text(e.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const http::SecretKey key(key_text);
  fuzz::Input input(data, size);
  http::RawResponse response;
  response.status = input.number<std::uint16_t>() % 1000;
  response.content_encoding = echo(input.until('\n'));
  response.request_id = echo(input.until('\n'));
  response.location = echo(input.until('\n'));
  response.body = echo(input.rest());
  check_error(response, key);
  check_success(response, key);
  return 0;
}
