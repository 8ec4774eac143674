// However the browser's bytes are cut on their way, the messages are what stands
// between the NULs.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/write.hpp>

#include "chromium/pipe_transport.hpp"
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"

namespace {

namespace asio = boost::asio;
using vision::chromium::PipeTransport;

asio::awaitable<void> read_all(PipeTransport& transport, std::vector<std::string>& messages) {
  for (;;) {
    std::string message = co_await transport.read();
    messages.push_back(std::move(message));
  }
}

std::vector<std::string> split(std::string_view bytes) {
  std::vector<std::string> out;
  for (auto end = bytes.find('\0'); end != bytes.npos; end = bytes.find('\0')) {
    out.emplace_back(bytes.substr(0, end));
    bytes.remove_prefix(end + 1);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  asio::io_context context;
  asio::local::stream_protocol::socket browser(context), ours(context);
  asio::local::connect_pair(browser, ours);
  PipeTransport transport(std::move(ours));
  std::vector<std::string> messages;
  bool ended = false;
  asio::co_spawn(context, read_all(transport, messages), [&](std::exception_ptr error) { ended = error != nullptr; });

  std::string sent;
  for (vision::fuzz::Input input(data, size); !input.empty();) {
    const std::string_view chunk = input.text();
    asio::write(browser, asio::buffer(chunk));
    sent += chunk;
    context.poll();
  }
  browser.close();
  context.run();
  vision::fuzz::require(messages == split(sent), "every message, whole and in order");
  vision::fuzz::require(ended, "the browser's end is an error");
  return 0;
}
