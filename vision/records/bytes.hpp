#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace vision {

/// An immutable byte string that is shared, not copied: a screenshot is held
/// once from the page to the socket and the fixture writer. Copies share the
/// bytes and may be used from any thread.
class Bytes {
 public:
  /// An empty byte string.
  Bytes() = default;
  /// Takes ownership of the buffer.
  explicit Bytes(std::string buffer) {
    const auto held = std::make_shared<const std::string>(std::move(buffer));
    view_ = *held;
    owner_ = held;
  }
  ///@{
  /// Copies the bytes of a vector, an array or a span.
  explicit Bytes(std::span<const unsigned char> bytes) : Bytes(std::string(bytes.begin(), bytes.end())) {}
  explicit Bytes(std::span<const std::byte> bytes)
      : Bytes(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size())) {}
  ///@}
  /// Bytes that `owner` (not null) holds, and that stay as they are as long as it
  /// lives. The last copy releases it, on whichever thread that is.
  Bytes(std::string_view bytes, std::shared_ptr<const void> owner) : view_(bytes), owner_(std::move(owner)) {}

  ///@{
  /// The bytes. Valid as long as any copy lives.
  const char* data() const noexcept { return view().data(); }
  std::size_t size() const noexcept { return view().size(); }
  bool empty() const noexcept { return size() == 0; }
  std::string_view view() const noexcept { return owner_ ? view_ : std::string_view(); }
  ///@}

  /// Equal byte by byte.
  friend bool operator==(const Bytes& a, const Bytes& b) noexcept { return a.view() == b.view(); }

 private:
  std::string_view view_;  // stays behind when owner_ is moved from
  std::shared_ptr<const void> owner_;
};

}  // namespace vision
