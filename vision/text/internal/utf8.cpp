#include "vision/text/internal/utf8.hpp"

#include <array>

namespace vision::text {
namespace {

constexpr char32_t replacement = 0xFFFD;

bool is_control(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
}

void append_escape(std::string& out, char32_t c) {
  switch (c) {
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default: break;
  }
  constexpr std::string_view digits = "0123456789abcdef";
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += digits[(c >> shift) & 0xF];
}

// Lead byte -> length of the sequence and the range its second byte may have
// (Unicode 15, table 3-7: excludes overlong forms, surrogates, > U+10FFFF).
struct Lead {
  std::size_t size;
  unsigned char low, high;
};

Lead lead_of(unsigned char b) noexcept {
  if (b < 0x80) return {1, 0, 0};
  if (b >= 0xC2 && b <= 0xDF) return {2, 0x80, 0xBF};
  if (b == 0xE0) return {3, 0xA0, 0xBF};
  if (b == 0xED) return {3, 0x80, 0x9F};
  if (b >= 0xE1 && b <= 0xEF) return {3, 0x80, 0xBF};
  if (b == 0xF0) return {4, 0x90, 0xBF};
  if (b >= 0xF1 && b <= 0xF3) return {4, 0x80, 0xBF};
  if (b == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

}  // namespace

CodePoint next_code_point(std::string_view rest) noexcept {
  if (rest.empty()) return {0, 0};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
  const Lead lead = lead_of(byte(0));
  if (lead.size == 1) return {byte(0), 1};
  if (lead.size == 0) return {replacement, 1};
  constexpr std::array<unsigned char, 5> lead_bits = {0, 0, 0x1F, 0x0F, 0x07};
  char32_t value = byte(0) & lead_bits[lead.size];
  for (std::size_t i = 1; i < lead.size; ++i) {
    const unsigned char low = i == 1 ? lead.low : 0x80;
    const unsigned char high = i == 1 ? lead.high : 0xBF;
    if (i >= rest.size() || byte(i) < low || byte(i) > high) return {replacement, i};
    value = (value << 6) | (byte(i) & 0x3F);
  }
  return {value, lead.size};
}

std::string_view first_code_points(std::string_view text, std::size_t count) noexcept {
  if (text.size() <= count) return text;
  std::size_t end = 0;
  for (; count > 0 && end < text.size(); --count) end += next_code_point(text.substr(end)).size;
  return text.substr(0, end);
}

void append_utf8(std::string& out, char32_t c) {
  const auto put = [&](char32_t byte) { out += static_cast<char>(byte); };
  if (c < 0x80) {
    put(c);
  } else if (c < 0x800) {
    put(0xC0 | (c >> 6));
    put(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    put(0xE0 | (c >> 12));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  } else {
    put(0xF0 | (c >> 18));
    put(0x80 | ((c >> 12) & 0x3F));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  }
}

std::string one_line(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const CodePoint c = next_code_point(text);
    if (is_control(c.value)) {
      append_escape(out, c.value);
    } else {
      append_utf8(out, c.value);
    }
    text.remove_prefix(c.size);
  }
  return out;
}

std::string_view trim(std::string_view text) noexcept {
  constexpr std::string_view blanks = " \t\n\v\f\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace vision::text
