#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vision {

/// The base64 text of `data` (RFC 4648, standard alphabet, padded, no line
/// breaks).
std::string _b64(std::string_view data);

namespace base64 {

/// Characters of the base64 text of `size` bytes.
constexpr std::size_t encoded_size(std::size_t size) noexcept {
  return (size + 2) / 3 * 4;
}

/// Writes the base64 text of `data` to `out`, which has room for
/// `encoded_size(data.size()) + 1` characters (the encoder ends it with a NUL).
/// A text can be made in pieces: all but the last a multiple of three bytes.
/// Gives the number of characters without the NUL.
std::size_t encode(std::string_view data, char* out) noexcept;

}  // namespace base64
}  // namespace vision
