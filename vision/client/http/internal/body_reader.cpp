#include "vision/client/http/internal/body_reader.hpp"

#include <algorithm>
#include <string_view>

#include "vision/text/internal/base64.hpp"

namespace vision::detail::http {

std::uint64_t BodyReader::size() const noexcept {
  return request_.prefix().size() + base64::encoded_size(request_.image().size()) + request_.suffix().size();
}

std::size_t BodyReader::read(char* out, std::size_t room) noexcept {
  std::size_t written = 0;
  while (written < room) {
    const std::size_t piece = read_piece(out + written, room - written);
    if (piece == 0) break;
    written += piece;
    position_ += piece;
  }
  return written;
}

std::size_t BodyReader::read_piece(char* out, std::size_t room) const noexcept {
  std::size_t offset = position_;
  if (offset < request_.prefix().size()) return request_.prefix().copy(out, room, offset);
  offset -= request_.prefix().size();
  const std::size_t encoded = base64::encoded_size(request_.image().size());
  if (offset < encoded) return read_base64(offset, out, room);
  return request_.suffix().copy(out, room, offset - encoded);
}

std::size_t BodyReader::read_base64(std::size_t offset, char* out, std::size_t room) const noexcept {
  const std::string_view rest = request_.image().view().substr(offset / 4 * 3);
  // The encoder writes a NUL after its output. Whole groups go straight to `out` as
  // far as there is room for that too; a group that `out` cuts goes through `group`.
  const std::size_t groups = offset % 4 == 0 ? std::min((room - 1) / 4, (rest.size() + 2) / 3) : 0;
  if (groups > 0) return base64::encode(rest.substr(0, groups * 3), out);
  char group[5];
  base64::encode(rest.substr(0, 3), group);
  return std::string_view(group, 4).copy(out, room, offset % 4);
}

}  // namespace vision::detail::http
