#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <vector>

#include "chromium/protocol/transport.hpp"

namespace vision::chromium {

/// The DevTools pipe of a browser that we started: messages end with a NUL.
class PipeTransport : public Transport {
 public:
  explicit PipeTransport(boost::asio::local::stream_protocol::socket socket);

  boost::asio::awaitable<std::string> read() override;
  boost::asio::awaitable<void> write(std::string message) override;
  void close() noexcept override;

 private:
  bool take_message();

  boost::asio::local::stream_protocol::socket socket_;
  std::vector<char> chunk_;  // what came last; [begin_, end_) is not yet used
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::string message_;  // what is complete but for its end
};

}  // namespace vision::chromium
