#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// UTF-8 by arithmetic, sharing nothing with the library's tables.
namespace vision::fuzz {

struct Step {
  std::uint32_t value;  // U+FFFD for an ill-formed part
  std::size_t size;
};

/// The first code point of `text`, which is not empty. A part is ill-formed and
/// ends as soon as no bytes after it could make a scalar value of it.
inline Step reference_step(std::string_view text) {
  constexpr Step ill_formed_byte{0xFFFD, 1};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  std::size_t length = 0;
  while (length < 8 && (byte(0) << length & 0x80) != 0) ++length;
  if (length == 0) return {byte(0), 1};
  if (length == 1 || length > 4) return ill_formed_byte;
  constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  std::uint32_t bits = byte(0) & (0x7Fu >> length);
  for (std::size_t taken = 1;; ++taken) {
    const auto missing = static_cast<unsigned>(6 * (length - taken));
    const std::uint32_t low = bits << missing;
    const std::uint32_t high = low | ((1u << missing) - 1);
    const bool possible = high >= least[length] && low <= 0x10FFFF && !(low >= 0xD800 && high <= 0xDFFF);
    if (!possible) return {0xFFFD, taken - 1 > 0 ? taken - 1 : 1};
    if (taken == length) return {bits, length};
    if (taken == text.size() || (byte(taken) & 0xC0) != 0x80) return {0xFFFD, taken};
    bits = bits << 6 | (byte(taken) & 0x3F);
  }
}

inline std::string reference_encode(std::uint32_t value) {
  std::string out;
  if (value < 0x80) return std::string(1, static_cast<char>(value));
  unsigned lead = 0x3F;
  for (; value > lead; value >>= 6, lead >>= 1) out.insert(out.begin(), static_cast<char>(0x80 | (value & 0x3F)));
  out.insert(out.begin(), static_cast<char>((~lead << 1 & 0xFF) | value));
  return out;
}

/// `text` with every ill-formed part replaced by U+FFFD.
inline std::string well_formed(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Step step = reference_step(text);
    out += reference_encode(step.value);
    text.remove_prefix(step.size);
  }
  return out;
}

}  // namespace vision::fuzz
