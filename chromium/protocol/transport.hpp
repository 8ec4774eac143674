#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstddef>
#include <string>

namespace vision::chromium {

/// A larger message ends the connection. The browser's full-page screenshots stay
/// well below; for everything else parse_message has a much lower limit.
inline constexpr std::size_t max_message_size = 512u << 20;

/// The browser drops a connection on which it receives a larger message.
inline constexpr std::size_t max_command_size = 100u << 20;

/// Carries text messages to and from a browser. At most one read and one write are
/// pending at a time.
class Transport {
 public:
  virtual ~Transport() = default;
  /// Returns the next message. Throws system_error when the other end has closed.
  virtual boost::asio::awaitable<std::string> read() = 0;
  /// Completes when all of the message has been handed to the kernel.
  virtual boost::asio::awaitable<void> write(std::string message) = 0;
  /// Ends the pending operations with an error. Idempotent.
  virtual void close() noexcept = 0;
};

}  // namespace vision::chromium
