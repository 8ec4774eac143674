// Whatever a peer answers, the error is a short harmless line with the status and
// without the key, and an accepted body is the JSON object that it holds.
#include <boost/json/parse.hpp>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/api_response.hpp"
#include "vision/text/utf8.hpp"

namespace {

using namespace vision;
using fuzz::require;

constexpr std::string_view key_text = "sk-fuzz-0123456789abcdef";

// A peer may echo the key wherever it likes: 0x01 stands for it.
std::string echo(std::string_view text) {
  std::string out;
  for (const char c : text) c == '\x01' ? out.append(key_text) : out.append(1, c);
  return out;
}

void check_text(std::string_view text) {
  require(text::one_line(text) == text, "one harmless line");
  require(text.find(key_text) == text.npos, "the key is not shown");
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
    require(value.is_object() && value == boost::json::parse(response.body, {}, options), "the body's JSON object");
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
