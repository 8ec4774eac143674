#include "chromium/protocol/pipe_transport.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <cstring>
#include <utility>

#include "chromium/errors.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace {

// More than a socket buffer holds (208 KiB by default), so that a picture takes few reads.
constexpr std::size_t chunk_size = 256 * 1024;

}  // namespace

PipeTransport::PipeTransport(Unshared<asio::local::stream_protocol::socket> socket)
    : socket_(std::move(socket)), chunk_(chunk_size) {}

// Appends to message_ up to the next NUL, and tells whether there was one. Looks at
// each byte once, however small the pieces are in which a message arrives.
bool PipeTransport::take_message() {
  const char* rest = chunk_.data() + begin_;
  const auto* end = static_cast<const char*>(std::memchr(rest, '\0', end_ - begin_));
  const std::size_t size = end ? static_cast<std::size_t>(end - rest) : end_ - begin_;
  if (message_.size() + size > max_message_size) throw BrowserError("the browser sent a message larger than 512 MiB");
  message_.append(rest, size);
  begin_ += size + (end ? 1 : 0);
  return end != nullptr;
}

asio::awaitable<std::string> PipeTransport::read() {
  while (!take_message()) {
    end_ = co_await socket_.async_read_some(asio::buffer(chunk_), asio::use_awaitable);
    begin_ = 0;
  }
  co_return std::exchange(message_, std::string());
}

asio::awaitable<void> PipeTransport::write(std::string message) {
  const asio::const_buffer frame(message.data(), message.size() + 1);  // with the string's terminating NUL
  co_await asio::async_write(socket_, frame, asio::use_awaitable);
}

void PipeTransport::close() noexcept {
  socket_.end();
}

}  // namespace vision::chromium
