#include "vision/text/internal/base64.hpp"

#include <openssl/evp.h>

namespace vision {
namespace base64 {

std::size_t encode(std::string_view data, char* out) noexcept {
  // The encoder counts in int; a multiple of three keeps padding out of the middle.
  constexpr std::size_t max_piece = 3u << 28;
  std::size_t written = 0;
  do {
    const std::string_view piece = data.substr(0, max_piece);
    written += static_cast<std::size_t>(::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out + written),
                                                          reinterpret_cast<const unsigned char*>(piece.data()),
                                                          static_cast<int>(piece.size())));
    data.remove_prefix(piece.size());
  } while (!data.empty());
  return written;
}

}  // namespace base64

std::string _b64(std::string_view data) {
  std::string out(base64::encoded_size(data.size()), '\0');
  base64::encode(data, out.data());  // the NUL lands on the string's own
  return out;
}

}  // namespace vision
