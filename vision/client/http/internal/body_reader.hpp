#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "vision/client/messages_request.hpp"

namespace vision::detail::http {

/// Reads the JSON text of a request piece by piece: prefix, base64 text of the
/// image, suffix. The image is shared, and encoded on the fly.
class BodyReader {
 public:
  explicit BodyReader(MessagesRequest request) : request_(std::move(request)) {}

  const MessagesRequest& request() const noexcept { return request_; }
  /// The number of characters of the whole text.
  std::uint64_t size() const noexcept;
  /// Writes at most `room` characters to `out` and returns their number: `room`,
  /// or what is left; 0 at the end.
  std::size_t read(char* out, std::size_t room) noexcept;
  /// Begins at the start again.
  void rewind() noexcept { position_ = 0; }

 private:
  std::size_t read_piece(char* out, std::size_t room) const noexcept;
  std::size_t read_base64(std::size_t offset, char* out, std::size_t room) const noexcept;

  MessagesRequest request_;
  std::size_t position_ = 0;
};

}  // namespace vision::detail::http
