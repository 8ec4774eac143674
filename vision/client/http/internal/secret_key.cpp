#include "vision/client/http/internal/secret_key.hpp"

#include <string.h>

#include <boost/algorithm/string/replace.hpp>

#include "vision/client/internal/api_key.hpp"

namespace vision::detail::http {
namespace {

constexpr std::string_view placeholder = "[API key]";

// As encoders that also escape the slash write it; vendors' keys need no escape.
std::string json_escaped(std::string_view key) {
  std::string out;
  for (const char c : key) {
    if (c == '"' || c == '\\' || c == '/') out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

// Other encodings (base64, percent, hexadecimal) are not looked for: an endpoint
// that transforms the key does so on purpose, and has it anyway.
SecretKey::SecretKey(std::string_view given) : value_(clean_api_key(given, "the api_key argument")) {
  if (value_.size() < shortest_removable) return;
  forms_.push_back(value_);
  if (std::string escaped = json_escaped(value_); escaped != value_) forms_.push_back(std::move(escaped));
}

SecretKey::~SecretKey() {
  ::explicit_bzero(value_.data(), value_.size());
  for (auto& form : forms_) ::explicit_bzero(form.data(), form.size());
}

std::string SecretKey::scrub(std::string_view text) const {
  std::string clean(text);
  for (const auto& form : forms_) boost::algorithm::replace_all(clean, form, placeholder);
  return clean;
}

std::string SecretKey::scrub_excerpt(std::string_view text) const {
  constexpr std::size_t shortest_part = 8;
  std::string clean = scrub(text);
  for (const auto& form : forms_) {
    for (std::size_t size = form.size() - 1; size >= shortest_part; --size) {
      if (!clean.ends_with(std::string_view(form).substr(0, size))) continue;
      clean.replace(clean.size() - size, size, placeholder);
      break;
    }
  }
  return clean;
}

void SecretKey::scrub(boost::json::value& value) const {
  if (auto* array = value.if_array()) {
    for (auto& element : *array) scrub(element);
  } else if (auto* object = value.if_object()) {
    for (auto& member : *object) scrub(member.value());
  } else if (auto* text = value.if_string()) {
    const std::string clean = scrub(*text);
    if (clean != std::string_view(*text)) *text = clean;
  }
}

}  // namespace vision::detail::http
