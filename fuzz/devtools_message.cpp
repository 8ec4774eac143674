// A message from the browser is a JSON value with well-formed texts, or an error after
// which the command it answers can still be found. A browser's URL is split into parts
// that are safe in a request, or refused with one harmless line.
#include <boost/json/serialize.hpp>
#include <cmath>

#include "chromium/errors.hpp"
#include "chromium/protocol/devtools_url.hpp"
#include "chromium/protocol/message.hpp"
#include "fuzz/input.hpp"

namespace vision::fuzz {
using namespace chromium;

namespace {

void check_url(std::string_view text) try {
  const auto can_be_sent = [](std::string_view part) {
    return !part.empty() && std::all_of(part.begin(), part.end(), [](char c) { return c > ' ' && c <= '~'; });
  };
  const auto url = parse_devtools_url(std::string(text));
  require(url.scheme == "http" || url.scheme == "ws", "one of two schemes");
  require(can_be_sent(url.authority()) && can_be_sent(url.path), "nothing can end a header");
  require(url.path.starts_with('/'), "a path is absolute");
  const int port = std::stoi(url.port);
  require(port > 0 && port < 65536, "a port is one");
  const auto again = parse_devtools_url(url.scheme + "://" + url.authority() + url.path);
  require(again.host == url.host && again.port == url.port && again.path == url.path, "its own words mean the same");
  const bool is_plain = url.host.find_first_of("@/?#") == std::string::npos;
  require(is_plain || !is_loopback(url.host), "no other host");
} catch (const std::invalid_argument& e) {
  require(vision::text::one_line(e.what()) == e.what(), "an error is one harmless line");
}

// Boost.JSON 1.81 rounds some reals in the last bits; ours are read exactly.
bool same_but_for_rounding(const boost::json::value& ours, const boost::json::value& strict) {
  if (ours.kind() != strict.kind()) return false;
  if (const double* const real = strict.if_double()) {
    constexpr double relative = 1e-12, smallest = 1e-300;
    const double read = ours.get_double();
    return read == *real || std::abs(read - *real) <= std::abs(*real) * relative + smallest;
  }
  if (const auto* const array = strict.if_array()) {
    return std::equal(ours.get_array().begin(), ours.get_array().end(), array->begin(), array->end(),
                      same_but_for_rounding);
  }
  if (const auto* const object = strict.if_object()) {
    return std::equal(
        ours.get_object().begin(), ours.get_object().end(), object->begin(), object->end(),
        [](const auto& a, const auto& b) { return a.key() == b.key() && same_but_for_rounding(a.value(), b.value()); });
  }
  return ours == strict;
}

}  // namespace

void check(Input text) {
  check_url(text);
  boost::system::error_code error;
  boost::json::parse_options options;
  options.max_depth = 256;
  const boost::json::value strict = boost::json::parse(text, error, {}, options);
  try {
    const boost::json::value message = parse_message(text);
    require(error || same_but_for_rounding(message, strict), "a strict reader's value");
    // Scripts can make lone surrogates; none may be left.
    const std::string texts = boost::json::serialize(message);
    require(well_formed(texts) == texts, "texts are well-formed");
    const auto id = leading_id(text);
    const bool one_id = text.find("\"id\"") == text.rfind("\"id\"") && text.find("\\u") == text.npos;
    const auto* told = message.is_object() && one_id ? message.get_object().if_contains("id") : nullptr;
    if (told && told->is_int64() && id)
      require(*id == static_cast<std::uint64_t>(told->get_int64()), "the id is found");
  } catch (const BrowserError&) {
    require(error.failed(), "what a strict reader accepts is accepted");
  }
}

}  // namespace vision::fuzz
