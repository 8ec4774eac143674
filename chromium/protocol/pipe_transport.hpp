#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <vector>

#include "chromium/protocol/transport.hpp"
#include "chromium/protocol/unshared.hpp"

namespace vision::chromium {

/// The DevTools pipe of a browser that we launched. A NUL ends each message.
class PipeTransport : public Transport {
 public:
  explicit PipeTransport(Unshared<boost::asio::local::stream_protocol::socket> socket);

  boost::asio::awaitable<std::string> read() override;
  boost::asio::awaitable<void> write(std::string message) override;
  void close() noexcept override;

 private:
  bool take_message();

  Unshared<boost::asio::local::stream_protocol::socket> socket_;
  std::vector<char> chunk_;  // the last read; [begin_, end_) is still to be used
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::string message_;  // the part of the next message that has arrived
};

}  // namespace vision::chromium
