#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace local_model {

/// An image of a request, decoded from its text but not into pixels.
struct ImageBlock {
  std::string bytes;
  std::size_t tokens = 0;  ///< cost: one token per 28 x 28 pixels, rounded up on each side
};

/// Checks the image as the hosted API does: at most 10 MB of base64 text,
/// well-formed, of the media type that it declares, at most 8000 pixels on a side.
/// Throws std::invalid_argument.
ImageBlock read_image_block(std::string_view media_type, std::string_view base64_text);

/// The bytes of a base64 text of the standard alphabet, padded, without line
/// breaks. Throws std::invalid_argument for anything else.
std::string decode_base64(std::string_view text);

}  // namespace local_model
