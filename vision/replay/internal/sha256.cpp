#include "vision/replay/internal/sha256.hpp"

#include <openssl/evp.h>

#include <new>

namespace vision::detail {

std::string sha256(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (::EVP_Digest(data.data(), data.size(), digest, &size, ::EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
  std::string out;
  out.reserve(2 * std::size_t{size});
  for (unsigned int i = 0; i < size; ++i) {
    out += "0123456789abcdef"[digest[i] >> 4];
    out += "0123456789abcdef"[digest[i] & 0xF];
  }
  return out;
}

}  // namespace vision::detail
