#include "vision/client/http/internal/secret_key.hpp"

#include <string.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <cctype>
#include <stdexcept>

#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail::http {
namespace {

constexpr std::size_t shortest_secret = 8;

// Each byte between what goes before and what goes after it, in hexadecimal digits.
std::string in_hex(std::string_view text, std::string_view before, const char* digits, std::string_view plain = "") {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (!plain.empty() && (std::isalnum(byte) || plain.find(c) != plain.npos)) {
      out += c;
    } else {
      (out += before) += {digits[byte >> 4], digits[byte & 15]};
    }
  }
  return out;
}

// The characters of the base64 text that the key alone decides, when it follows
// `offset` bytes of something else ("user:key") in what was encoded.
std::string in_base64(std::string_view key, std::size_t offset, bool url) {
  std::string out = _b64(std::string(offset, '\0') + std::string(key));
  out = out.substr((offset * 8 + 5) / 6, (offset + key.size()) * 8 / 6 - (offset * 8 + 5) / 6);
  for (char& c : out) {
    if (url && c == '+') c = '-';
    if (url && c == '/') c = '_';
  }
  return out;
}

std::vector<std::string> forms_of(const std::string& key) {
  if (key.size() < shortest_secret) return {};
  std::vector<std::string> forms = {key};
  for (const char* digits : {"0123456789abcdef", "0123456789ABCDEF"}) {
    forms.push_back(in_hex(key, "", digits));
    forms.push_back(in_hex(key, "\\u00", digits));
    forms.push_back(in_hex(key, "%", digits));
    forms.push_back(in_hex(key, "%", digits, "-._~"));
  }
  for (std::size_t offset = 0; offset < 3; ++offset) {
    for (const bool url : {false, true}) forms.push_back(in_base64(key, offset, url));
  }
  for (const std::string_view escaped : {"\"\\", "\"\\/"}) {
    std::string& form = forms.emplace_back();
    for (const char c : key) form += escaped.find(c) == escaped.npos ? std::string{c} : std::string{'\\', c};
  }
  return forms;
}

}  // namespace

SecretKey::SecretKey(std::string_view given) : value_(text::trim(given)) {
  if (value_.empty()) throw std::invalid_argument("API key (ANTHROPIC_API_KEY) is empty");
  const auto bad = std::find_if(value_.begin(), value_.end(), [](char c) { return c <= ' ' || c >= '\x7f'; });
  if (bad != value_.end()) {
    const auto code = static_cast<unsigned char>(*bad);
    const char* const kind = code == ' ' ? "a blank" : code >= 0x80 ? "a non-ASCII character" : "a control character";
    throw std::invalid_argument(std::string("API key (ANTHROPIC_API_KEY) contains ") + kind + " at position " +
                                std::to_string(bad - value_.begin() + 1) + "; only visible ASCII is allowed");
  }
  forms_ = forms_of(value_);
}

SecretKey::~SecretKey() {
  ::explicit_bzero(value_.data(), value_.size());
  for (auto& form : forms_) ::explicit_bzero(form.data(), form.size());
}

std::string SecretKey::scrub(std::string_view text) const {
  constexpr std::string_view placeholder = "[API key]";
  std::string clean(text);
  if (clean.size() < shortest_secret) return clean;
  for (const auto& form : forms_) {
    // Whole or cut short it begins with this, which almost no text holds.
    if (clean.find(form.data(), 0, shortest_secret) == std::string::npos) continue;
    boost::algorithm::replace_all(clean, form, placeholder);
    // A text that broke off may end with the beginning of it.
    for (std::size_t size = form.size() - 1; size >= shortest_secret; --size) {
      if (!clean.ends_with(std::string_view(form).substr(0, size))) continue;
      clean.replace(clean.size() - size, size, placeholder);
      break;
    }
  }
  return clean;
}

// An escape in an answer can swallow the first of the key's hexadecimal digits, as in
// "\u00073..." for "73...", and writing the text as JSON brings them back.
std::string SecretKey::scrub_for_json(std::string_view text) const {
  std::string clean = scrub(text);
  if (std::all_of(clean.begin(), clean.end(), [](char c) { return c >= ' ' && c <= '~'; })) return clean;
  std::string written;
  text::append_json_string(written, clean);
  written = written.substr(1, written.size() - 2);  // without the quotes
  std::string scrubbed = scrub(written);
  return scrubbed == written ? clean : scrubbed;
}

void SecretKey::scrub(boost::json::value& value) const {
  if (auto* array = value.if_array()) {
    for (auto& element : *array) scrub(element);
  } else if (auto* object = value.if_object()) {
    bool has_clean_names = true;
    for (auto& member : *object) {
      scrub(member.value());
      has_clean_names = has_clean_names && scrub_for_json(member.key()) == std::string_view(member.key());
    }
    if (has_clean_names) return;
    boost::json::object renamed(object->storage());
    for (auto& member : *object) {
      renamed.insert_or_assign(scrub_for_json(member.key()), std::move(member.value()));
    }
    *object = std::move(renamed);
  } else if (auto* text = value.if_string()) {
    const std::string clean = scrub_for_json(*text);
    if (clean != std::string_view(*text)) *text = clean;
  }
}

}  // namespace vision::detail::http
