#include "vision/client/http/secret_key.hpp"

#include <string.h>

#include <algorithm>
#include <stdexcept>

#include "vision/text/utf8.hpp"

namespace vision::http {

SecretKey::SecretKey(std::string_view given) : value_(text::trim(given)) {
  if (value_.empty()) throw std::invalid_argument("API key (ANTHROPIC_API_KEY) is empty");
  const auto bad = std::find_if(value_.begin(), value_.end(), [](char c) { return c <= ' ' || c >= '\x7f'; });
  if (bad == value_.end()) return;
  const auto code = static_cast<unsigned char>(*bad);
  const char* const kind = code == ' ' ? "a blank" : code >= 0x80 ? "a non-ASCII character" : "a control character";
  throw std::invalid_argument(std::string("API key (ANTHROPIC_API_KEY) contains ") + kind + " at position " +
                              std::to_string(bad - value_.begin() + 1) + "; only visible ASCII is allowed");
}

SecretKey::~SecretKey() {
  ::explicit_bzero(value_.data(), value_.size());
}

std::string SecretKey::scrub(std::string_view text) const {
  constexpr std::size_t shortest_secret = 8;
  std::string clean(text);
  if (value_.size() < shortest_secret) return clean;
  for (auto at = clean.find(value_); at != std::string::npos; at = clean.find(value_, at)) {
    clean.replace(at, value_.size(), "[API key]");
  }
  return clean;
}

}  // namespace vision::http
