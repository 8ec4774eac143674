#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace vision {

/// An immutable byte string that is shared, not copied: a screenshot is held
/// once from the page to the socket and the fixture writer. Copies share the
/// bytes and may be used from any thread.
class Bytes {
 public:
  /// An empty byte string.
  Bytes() = default;
  /// Takes ownership of the buffer.
  explicit Bytes(std::string buffer) : buffer_(std::make_shared<const std::string>(std::move(buffer))) {}
  ///@{
  /// Copies the bytes of a vector, an array or a span.
  explicit Bytes(std::span<const unsigned char> bytes) : Bytes(std::string(bytes.begin(), bytes.end())) {}
  explicit Bytes(std::span<const std::byte> bytes)
      : Bytes(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size())) {}
  ///@}

  ///@{
  /// The bytes. Valid as long as any copy lives.
  const char* data() const noexcept { return view().data(); }
  std::size_t size() const noexcept { return view().size(); }
  bool empty() const noexcept { return size() == 0; }
  std::string_view view() const noexcept { return buffer_ ? std::string_view(*buffer_) : std::string_view(); }
  ///@}

  /// Equal byte by byte.
  friend bool operator==(const Bytes& a, const Bytes& b) noexcept { return a.view() == b.view(); }

 private:
  std::shared_ptr<const std::string> buffer_;
};

}  // namespace vision
