#include "examples/local_model/image_block.hpp"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

#include "examples/local_model/ocr.hpp"

namespace local_model {
namespace {

constexpr std::size_t largest_text = 10 * 1024 * 1024;
constexpr int largest_side = 8000;
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

ImageHeader header_of(const std::string& bytes) {
  try {
    return image_header(bytes);
  } catch (const BadImage&) {
    throw std::invalid_argument("Could not process image");
  }
}

bool is_base64(std::string_view text) {
  std::array<bool, 256> allowed{};
  for (const char c : alphabet) allowed[static_cast<unsigned char>(c)] = true;
  if (text.empty() || text.size() % 4 != 0) return false;
  for (int padding = 0; padding < 2 && text.back() == '='; ++padding) text.remove_suffix(1);
  for (const char c : text) {
    if (!allowed[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

}  // namespace

std::string decode_base64(std::string_view text) {
  if (!is_base64(text)) throw std::invalid_argument("Invalid base64 data");
  std::string bytes(text.size() / 4 * 3, '\0');
  EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), reinterpret_cast<const unsigned char*>(text.data()),
                  static_cast<int>(text.size()));
  const std::size_t padding = text.size() - text.find_last_not_of('=') - 1;
  bytes.resize(bytes.size() - padding);
  return bytes;
}

ImageBlock read_image_block(std::string_view media_type, std::string_view base64_text) {
  if (media_type != "image/png" && media_type != "image/jpeg" && media_type != "image/gif" &&
      media_type != "image/webp") {
    throw std::invalid_argument("Input should be 'image/jpeg', 'image/png', 'image/gif' or 'image/webp'");
  }
  if (base64_text.size() > largest_text) {
    throw std::invalid_argument("image exceeds 10 MB maximum: " + std::to_string(base64_text.size()) + " bytes > " +
                                std::to_string(largest_text) + " bytes");
  }
  ImageBlock block;
  block.bytes = decode_base64(base64_text);
  const ImageHeader header = header_of(block.bytes);
  if (header.media_type != media_type) {
    throw std::invalid_argument("The image was specified using the " + std::string(media_type) +
                                " media type, but the image appears to be a " + header.media_type + " image");
  }
  if (header.width > largest_side || header.height > largest_side) {
    throw std::invalid_argument("At least one of the image dimensions exceed max allowed size: 8000 pixels");
  }
  block.tokens =
      static_cast<std::size_t>((header.width + 27) / 28) * static_cast<std::size_t>((header.height + 27) / 28);
  return block;
}

}  // namespace local_model
