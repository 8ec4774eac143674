#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstddef>
#include <string>

namespace vision::chromium {

/// Messages above this size end the connection. The browser's full-page shots
/// stay well below it; of what is no picture parse_message takes much less.
inline constexpr std::size_t max_message_size = 512u << 20;

/// The browser drops a connection on which it gets a larger one.
inline constexpr std::size_t max_command_size = 100u << 20;

/// A pipe of text messages to and from a browser. One read and one write may be
/// under way at a time.
class Transport {
 public:
  virtual ~Transport() = default;
  /// The next message. Throws system_error when the other side is gone.
  virtual boost::asio::awaitable<std::string> read() = 0;
  virtual boost::asio::awaitable<void> write(std::string message) = 0;
  /// Ends whatever is under way with an error. Can be called again.
  virtual void close() noexcept = 0;
};

}  // namespace vision::chromium
